#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

#include "nbdd/imports/fuse_mount.h"
#include "nbdd/io/event_loop.h"
#include "nbdd/remote/asking.h"
#include "nbdd/remote/device.h"

namespace Nbdd {

class FileRequest;

/// The requests to a mounted file that one worker has to answer, and what becomes of those whose programs are
/// killed: a program waits in the kernel until its request is answered, whatever signal it gets, and
/// the server may be gone for days. The kernel does not tell of signals to programs that go past its cache
/// (O_DIRECT), so the worker looks for itself, now and then, while requests take long. One loop's thread.
class FileRequests {
 public:
  /// All outlive this.
  FileRequests(Io::EventLoop& loop, Remote::Device& device, FuseMount& mount)
      : device_(device), mount_(mount), look_(loop, [this] { lookAfterLong(); }) {}

 private:
  friend class FileRequest;

  void lookAfterLong();

  Remote::Device& device_;
  FuseMount& mount_;
  Io::Timer look_;  // runs while there are requests
  std::vector<FileRequest*> all_;
};

/// One of them, until it is answered: once, whichever way. A variable of the coroutine that carries it out.
class FileRequest {
 public:
  /// What it may do to the export's content.
  enum class Kind : std::uint8_t { harmless, changing };

  FileRequest(FileRequests& all, fuse_req_t request, Kind kind);
  FileRequest(const FileRequest&) = delete;
  FileRequest& operator=(const FileRequest&) = delete;
  ~FileRequest();

  /// One question to the server on the way to the answer: a variable of the coroutine, to be awaited at once.
  /// It fails without the server if nobody wants an answer any more.
  class Question : public Remote::Asking {
   public:
    Question(FileRequest& request, Nbd::Command which, std::uint64_t at = 0, std::uint64_t bytes = 0)
        : Asking(request.all_.device_, which, at, bytes), request_(request), late_(request.givenUp_) {
      if (late_) return;
      request_.asked_ = this;
      request_.begun_ = true;
    }
    Question(const Question&) = delete;
    Question& operator=(const Question&) = delete;
    ~Question() override { request_.asked_ = nullptr; }

    bool await_ready() const noexcept { return late_; }
    Nbd::Error await_resume() const noexcept { return late_ ? Nbd::Error::io : Asking::await_resume(); }

   private:
    FileRequest& request_;
    const bool late_;
  };

  /// An error number, or 0 for success.
  void replyError(int error);
  void replyData(std::span<const std::byte> data);
  void replyWritten(std::size_t length);
  void replyOffset(std::uint64_t offset);

 private:
  friend class FileRequests;

  bool answering() { return !std::exchange(answered_, true); }
  void giveUp();

  FileRequests& all_;
  fuse_req_t request_;
  const pid_t process_;  // the thread that waits for it
  const Kind kind_;
  std::size_t place_;                 // in all_
  Remote::Request* asked_ = nullptr;  // the question that is not answered yet
  bool begun_ = false;                // something was asked
  bool seen_ = false;                 // it was there when the worker last looked
  bool givenUp_ = false;
  bool answered_ = false;
};

/// Whether the status of a thread, as proc(5) has it, says that it is being killed. Any text.
bool saysKilled(std::string_view status);

}  // namespace Nbdd
