#pragma once

// Waiting for storage without waiting for it.
//
// A FileOperation describes one system call on a file. It lives in the frame of the coroutine that awaits it,
// together with (or referring to) the memory that the kernel reads or writes, and neither may go away
// before the operation has completed: there is no cancelling. Completions are collected first and resumed
// from the loop afterwards, so that no coroutine runs while completions are being reaped.
//
// Two engines: io_uring where the kernel allows it, and a pool of threads. What io_uring cannot do (an ioctl,
// lseek) goes to the pool in both.

#include <coroutine>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string_view>
#include <utility>

#include "nbdd/io/event_loop.h"
#include "nbdd/io/thread_pool.h"

namespace Nbdd::Io {

/// One call on a file, its arguments and its result.
class FileOperation {
 public:
  enum class Kind : std::uint8_t { read, write, syncData, allocate, willNeed, call };

  static FileOperation read(int file, std::span<std::byte> buffer, std::uint64_t offset) {
    return {Kind::read, file, buffer.data(), offset, buffer.size(), 0};
  }
  static FileOperation write(int file, std::span<const std::byte> buffer, std::uint64_t offset) {
    // The kernel only reads it.
    return {Kind::write, file, const_cast<std::byte*>(buffer.data()), offset, buffer.size(), 0};
  }
  /// fdatasync(2)
  static FileOperation syncData(int file) { return {Kind::syncData, file, nullptr, 0, 0, 0}; }
  /// fallocate(2) with `mode`
  static FileOperation allocate(int file, int mode, std::uint64_t offset, std::uint64_t length) {
    return {Kind::allocate, file, nullptr, offset, length, mode};
  }
  /// posix_fadvise(2) with POSIX_FADV_WILLNEED
  static FileOperation willNeed(int file, std::uint64_t offset, std::uint64_t length) {
    return {Kind::willNeed, file, nullptr, offset, length, 0};
  }
  /// Whatever `function` does, on a thread of the pool. It returns what the operation shall yield.
  static FileOperation call(std::move_only_function<int()> function) {
    FileOperation operation{Kind::call, -1, nullptr, 0, 0, 0};
    operation.function_ = std::move(function);
    return operation;
  }

  FileOperation(FileOperation&&) = default;
  FileOperation& operator=(FileOperation&&) = default;

  Kind kind() const { return kind_; }
  int file() const { return file_; }
  std::byte* buffer() const { return buffer_; }
  std::uint64_t offset() const { return offset_; }
  std::uint64_t length() const { return length_; }
  int mode() const { return mode_; }

  /// Makes the call and waits for it. Returns its result, or a negative errno.
  int runBlocking();

  /// Set when it has completed: the call's result, or a negative errno.
  int result = 0;
  std::coroutine_handle<> waiter;

 private:
  FileOperation(Kind kind, int file, std::byte* buffer, std::uint64_t offset, std::uint64_t length, int mode)
      : kind_(kind), file_(file), mode_(mode), buffer_(buffer), offset_(offset), length_(length) {}

  Kind kind_;
  int file_;
  int mode_;
  std::byte* buffer_;
  std::uint64_t offset_;
  std::uint64_t length_;
  std::move_only_function<int()> function_;
};

/// Runs operations for the coroutines of one event loop.
class FileIo {
 public:
  virtual ~FileIo() = default;

  class Running {
   public:
    Running(FileIo& engine, FileOperation& operation) : engine_(engine), operation_(operation) {}
    bool await_ready() const noexcept { return false; }
    void await_suspend(std::coroutine_handle<> waiter) {
      operation_.waiter = waiter;
      engine_.start(operation_);
    }
    int await_resume() const noexcept { return operation_.result; }

   private:
    FileIo& engine_;
    FileOperation& operation_;
  };

  /// Awaits the operation's end; yields its result or a negative errno. `operation` must be a variable of the
  /// awaiting coroutine.
  [[nodiscard]] Running run(FileOperation& operation) { return {*this, operation}; }

  /// "io_uring" or "threads"
  virtual std::string_view name() const = 0;

 protected:
  /// Starts it; it completes later, from the loop.
  virtual void start(FileOperation& operation) = 0;
};

/// The best engine that the kernel allows here: io_uring if `allowRing` and possible, else the pool alone.
/// To be called, used and destroyed on the loop's thread; when it is destroyed nothing may be running.
/// `pool` must outlive it.
std::unique_ptr<FileIo> makeFileIo(EventLoop& loop, ThreadPool& pool, bool allowRing);

}  // namespace Nbdd::Io
