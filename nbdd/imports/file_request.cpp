#include "nbdd/imports/file_request.h"

#include <fcntl.h>
#include <fmt/core.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <string>
#include <utility>

#include "nbdd/io/file_descriptor.h"
#include "nbdd/limits.h"

namespace Nbdd {

namespace {

/// Every signal that ends a program without a core dump is SIGKILL for each of its threads.
constexpr std::uint64_t killed = std::uint64_t{1} << (SIGKILL - 1);

/// Whether a thread is about to end, or has ended: what it wanted to be read ahead is locked in the kernel
/// until it is answered, and others wait for that. No number is that of a thread that cannot be seen from
/// here.
bool isEnding(pid_t thread) {
  if (thread <= 0) return false;
  const Io::FileDescriptor file(::open(fmt::format("/proc/{}/status", thread).c_str(), O_RDONLY | O_CLOEXEC));
  if (!file) return errno == ENOENT;
  std::array<char, 8192> text{};  // a status takes some 1,500 bytes, and a few for each group of its user
  const ssize_t length = ::read(file.number(), text.data(), text.size());
  if (length < 0) return errno == ESRCH;
  return saysKilled(std::string_view(text.data(), static_cast<std::size_t>(length)));
}

}  // namespace

bool saysKilled(std::string_view status) {
  for (const std::string_view name : {"\nSigPnd:\t", "\nShdPnd:\t"}) {
    const std::size_t at = status.find(name);
    if (at == std::string_view::npos) continue;
    const std::string_view digits = status.substr(at + name.size());
    std::uint64_t pending = 0;
    std::from_chars(digits.data(), digits.data() + digits.size(), pending, 16);
    if ((pending & killed) != 0) return true;
  }
  return false;
}

void FileRequests::lookAfterLong() {
  for (FileRequest* const request : all_) {
    // One that came since the last look does not take long yet.
    if (std::exchange(request->seen_, true) && !request->givenUp_ && isEnding(request->process_)) {
      request->giveUp();
    }
  }
  if (!all_.empty()) look_.start(Limits::killedProgramsLook);
}

FileRequest::FileRequest(FileRequests& all, fuse_req_t request, Kind kind)
    : all_(all),
      request_(request),
      process_(fuse_req_ctx(request)->pid),
      kind_(kind),
      place_(all.all_.size()) {
  all_.all_.push_back(this);
  if (!all_.look_.running()) all_.look_.start(Limits::killedProgramsLook);
}

FileRequest::~FileRequest() {
  all_.all_[place_] = all_.all_.back();
  all_.all_[place_]->place_ = place_;
  all_.all_.pop_back();
}

/// What waits to be sent is not sent any more. A change that the server may be about to make is waited for:
/// once its program is told that it has ended, others may write to the same place, and it must not land on
/// what they wrote.
void FileRequest::giveUp() {
  givenUp_ = true;
  if (asked_ != nullptr) all_.device_.withdraw(*asked_);
  if (kind_ == Kind::harmless || !begun_) replyError(EINTR);
}

void FileRequest::replyError(int error) {
  if (answering()) all_.mount_.replyError(request_, givenUp_ && error != 0 ? EINTR : error);
}

void FileRequest::replyData(std::span<const std::byte> data) {
  if (answering()) all_.mount_.replyData(request_, data);
}

void FileRequest::replyWritten(std::size_t length) {
  if (answering()) all_.mount_.replyWritten(request_, length);
}

void FileRequest::replyOffset(std::uint64_t offset) {
  if (answering()) all_.mount_.replyOffset(request_, offset);
}

}  // namespace Nbdd
