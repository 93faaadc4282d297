#pragma once

#define FUSE_USE_VERSION 35
#include <fuse_lowlevel.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <shared_mutex>
#include <span>

#include "control/failure.h"
#include "control/interface.h"

namespace Nbdd {

/// Memory into which requests of the kernel are received, as large as the largest. One at a time.
class FuseInput {
 public:
  FuseInput() = default;
  FuseInput(const FuseInput&) = delete;
  FuseInput& operator=(const FuseInput&) = delete;
  ~FuseInput() {
    const std::unique_ptr<void, void (*)(void*)> memory(buffer_.mem, &std::free);  // as libfuse allocated it
  }

 private:
  friend class FuseMount;
  fuse_buf buffer_{};
};

/// A regular file by FUSE: its mount, and the conversation with the kernel.
///
/// `mount` and `unmount` belong to one thread. Requests may be received, and answered, by any number of
/// threads, each request by the one that received it.
class FuseMount {
 public:
  /// Bytes that the kernel asks for at once. The data of larger reads have left the processor's cache when
  /// they are passed on, which costs more than the further requests. FUSE wants to hear it again when it
  /// begins to talk.
  static constexpr unsigned largestRead = 256U << 10;

  /// `operations` are called with `user` by the threads that receive.
  FuseMount(std::filesystem::path place, const fuse_lowlevel_ops& operations, void* user);
  /// Unmounts. Every request must have been answered.
  ~FuseMount();
  FuseMount(const FuseMount&) = delete;
  FuseMount& operator=(const FuseMount&) = delete;

  Control::Result<void> mount();
  /// Whatever programs still wait for fails for them at this moment; answers go nowhere from then on.
  void unmount();

  const std::filesystem::path& place() const { return place_; }

  /// Calls `function` with FUSE's descriptor, which does not block, unless it is unmounted.
  template <class Function>
  void withDescriptor(Function&& function) {
    const Hold hold(*this);
    if (mounted_) function(fuse_session_fd(session_));
  }

  enum class Received : std::uint8_t {
    request,  ///< one, and the operation for it was called
    nothing,  ///< there is none at the moment
    over,     ///< nor will there be: it was unmounted, by us or by somebody else
  };
  Received receive(FuseInput& input);

  // Answers. Each takes the request away.
  void replyError(fuse_req_t request, int error);
  void replyData(fuse_req_t request, std::span<const std::byte> data);
  void replyWritten(fuse_req_t request, std::size_t length);
  void replyOffset(fuse_req_t request, std::uint64_t offset);
  void replyAttributes(fuse_req_t request, const struct stat& attributes, double validSeconds);
  /// False: whoever asked has gone, and there will be no release.
  bool replyOpen(fuse_req_t request, const fuse_file_info& info);

 private:
  /// Keeps the descriptor open, for this thread.
  class Hold {
   public:
    explicit Hold(FuseMount& mount);

   private:
    std::shared_lock<std::shared_mutex> lock_;
  };
  class Processing;

  template <class Reply>
  void reply(fuse_req_t request, Reply&& send);
  void clearPlace() const;
  void widenReadAhead() const;

  const std::filesystem::path place_;
  const fuse_lowlevel_ops operations_;
  void* const user_;
  fuse_session* session_ = nullptr;
  std::shared_mutex mutex_;
  bool mounted_ = false;  // guarded by mutex_, and with it libfuse's descriptor
};

}  // namespace Nbdd
