#pragma once

#define FUSE_USE_VERSION 35
#include <fuse_lowlevel.h>

#include <coroutine>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <memory>
#include <span>
#include <string>

#include "control/interface.h"
#include "nbdd/imports/file_node.h"
#include "nbdd/io/buffer.h"
#include "nbdd/io/event_loop.h"
#include "nbdd/io/scope.h"
#include "nbdd/io/signal.h"
#include "nbdd/remote/device.h"

namespace Nbdd {

/// What is behind a FileNode while it is mounted: takes requests of the kernel from /dev/fuse on the import's
/// loop, and answers each from a coroutine of its own.
class FileNode::Session final : private Io::EventHandler {
 public:
  explicit Session(NodeContext context);
  ~Session() override;
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  Control::Result<std::filesystem::path> mount();
  void unmount();
  Io::Task<void> ended();
  std::size_t users() const { return users_; }

 private:
  struct Operations;  // the table of functions that libfuse calls

  void onEvents(std::uint32_t events) override;
  void receive();
  void clearPlace() const;
  void widenReadAhead() const;

  // One request each; replied to when they end.
  Io::Task<void> read(fuse_req_t request, std::size_t length, std::uint64_t offset);
  Io::Task<void> write(fuse_req_t request, Io::Buffer data, std::uint64_t offset);
  Io::Task<void> writeAround(fuse_req_t request, Io::Buffer data, std::uint64_t offset);
  Io::Task<void> sync(fuse_req_t request);
  Io::Task<void> zero(fuse_req_t request, std::uint64_t offset, std::uint64_t length, bool keepAllocated);
  Io::Task<void> seek(fuse_req_t request, std::uint64_t offset, bool forHole);
  Io::Task<Nbd::Error> zeroBlocks(std::uint64_t offset, std::uint64_t length, std::uint16_t flags);
  Io::Task<Nbd::Error> replaceBytes(std::uint64_t offset, std::span<const std::byte> data);

  // Writes that are no whole blocks have those blocks for themselves: see writeAround().
  Io::Task<void> enterShared();
  Io::Task<void> enterAlone();
  void leave();

  void opened(fuse_req_t request, fuse_file_info* info);
  void released(fuse_req_t request);
  void replyAttributes(fuse_req_t request) const;
  struct stat attributes() const;
  bool readOnly() const;
  bool isAligned(std::uint64_t offset, std::uint64_t length) const;

  void replyError(fuse_req_t request, int error) const;
  void replyData(fuse_req_t request, std::span<const std::byte> data) const;
  void replyWritten(fuse_req_t request, std::size_t length) const;

  NodeContext context_;
  Remote::Device& device_;
  std::filesystem::path path_;
  const std::uint64_t size_;
  timespec mounted_{};
  fuse_session* session_ = nullptr;
  int descriptor_ = -1;  // libfuse's
  fuse_buf buffer_{};    // libfuse allocates it
  bool mountedNow_ = false;
  std::size_t users_ = 0;
  Io::BufferPool buffers_;

  /// Waits until the gate is opened for everybody who waits; then each looks again.
  class Gate {
   public:
    explicit Gate(std::deque<std::coroutine_handle<>>& waiters) : waiters_(waiters) {}
    bool await_ready() const noexcept { return false; }
    void await_suspend(std::coroutine_handle<> waiter) { waiters_.push_back(waiter); }
    void await_resume() const noexcept {}

   private:
    std::deque<std::coroutine_handle<>>& waiters_;
  };

  std::size_t writers_ = 0;  // writes of whole blocks that are under way
  bool alone_ = false;
  std::size_t waitingAlone_ = 0;
  std::deque<std::coroutine_handle<>> gate_;

  Io::Scope scope_;
};

}  // namespace Nbdd
