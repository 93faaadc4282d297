#pragma once

#include <atomic>
#include <coroutine>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <deque>
#include <functional>
#include <span>

#include "nbdd/imports/file_request.h"
#include "nbdd/imports/fuse_mount.h"
#include "nbdd/io/buffer.h"
#include "nbdd/io/event_loop.h"
#include "nbdd/io/scope.h"
#include "nbdd/io/task.h"
#include "nbdd/remote/device.h"

namespace Nbdd {

/// Who has a file open. Shared by its workers, which are on several threads.
struct FileUsers {
  std::atomic<std::size_t> count = 0;
  std::function<void()> changed;  ///< to be called when `count` has become another; any thread
  /// The same, and what is passed is called when everybody can know of it, on the import's thread.
  std::function<void(std::function<void()>)> tell;
  timespec since{};  ///< when there was the file: its time of last change
};

/// Takes requests of the kernel for a mounted file, on one loop, and answers each from a coroutine of its
/// own. One loop's thread.
///
/// Several workers, each with a device of its own, may share a mount if the server's blocks are single bytes:
/// a write that is no whole blocks has to be alone among all writes, and a worker knows only its own.
class FileWorker final : private Io::EventHandler {
 public:
  /// What is called with the requests that a worker receives.
  static const fuse_lowlevel_ops& operations();

  /// The geometry of `device` is known. All outlive this.
  FileWorker(Io::EventLoop& loop, Remote::Device& device, FuseMount& mount, FileUsers& users);
  FileWorker(const FileWorker&) = delete;
  FileWorker& operator=(const FileWorker&) = delete;

  /// Takes requests from now on, while the file is mounted. Twice is as good as once.
  void start();
  /// Takes none any more; goes on with those it has.
  void stop();
  /// Whether it takes requests: it was started, and the kernel gave it the means.
  bool started() const { return watching_; }
  /// Awaits the end of all requests that were taken.
  Io::Task<void> ended();

 private:
  struct Operations;  // the functions that libfuse calls

  void onEvents(std::uint32_t events) override;

  // One request each; replied to when they end, if not before.
  Io::Task<void> read(fuse_req_t incoming, std::size_t length, std::uint64_t offset);
  Io::Task<void> write(fuse_req_t incoming, Io::Buffer data, std::uint64_t offset);
  Io::Task<void> writeAround(fuse_req_t incoming, Io::Buffer data, std::uint64_t offset);
  Io::Task<void> sync(fuse_req_t incoming);
  Io::Task<void> zero(fuse_req_t incoming, std::uint64_t offset, std::uint64_t length, bool keepAllocated);
  Io::Task<void> seek(fuse_req_t incoming, std::uint64_t offset, bool forHole);
  Io::Task<Nbd::Error> zeroBlocks(FileRequest& request, std::uint64_t offset, std::uint64_t length,
                                  std::uint16_t flags);
  Io::Task<Nbd::Error> replaceBytes(FileRequest& request, std::uint64_t offset,
                                    std::span<const std::byte> data);

  // Writes that are no whole blocks have those blocks for themselves: see writeAround().
  Io::Task<void> enterShared();
  Io::Task<void> enterAlone();
  void leave();

  void opened(fuse_req_t request, fuse_file_info* info);
  void released(fuse_req_t request);
  void replyAttributes(fuse_req_t request);
  bool readOnly() const;
  bool isAligned(std::uint64_t offset, std::uint64_t length) const;

  Io::EventLoop& loop_;
  Remote::Device& device_;
  FuseMount& mount_;
  FileUsers& users_;
  const std::uint64_t size_;
  bool watching_ = false;
  FuseInput input_;
  Io::BufferPool buffers_;
  FileRequests requests_;

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
