#include "nbdd/imports/fuse_mount.h"

#include <fcntl.h>
#include <fmt/core.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include "nbdd/limits.h"
#include "nbdd/log/log.h"

namespace Nbdd {

namespace {

using Control::Failure;
using Control::FailureCode;

/// The mount whose request this thread is about to carry out, and whose descriptor it holds while it does so.
thread_local const FuseMount* beingProcessed = nullptr;

void logFuse(fuse_log_level /*level*/, const char* format, va_list arguments) {
  std::array<char, 512> text{};
  static_cast<void>(std::vsnprintf(text.data(), text.size(), format, arguments));
  std::string_view line(text.data());
  while (line.ends_with('\n')) line.remove_suffix(1);
  log(LogLevel::info, "fuse", "{}", escaped(line));
}

}  // namespace

FuseMount::Hold::Hold(FuseMount& mount) {
  if (beingProcessed != &mount) lock_ = std::shared_lock(mount.mutex_);
}

class FuseMount::Processing {
 public:
  explicit Processing(const FuseMount& mount) : before_(std::exchange(beingProcessed, &mount)) {}
  Processing(const Processing&) = delete;
  Processing& operator=(const Processing&) = delete;
  ~Processing() { beingProcessed = before_; }

 private:
  const FuseMount* const before_;
};

FuseMount::FuseMount(std::filesystem::path place, const fuse_lowlevel_ops& operations, void* user)
    : place_(std::move(place)), operations_(operations), user_(user) {}

FuseMount::~FuseMount() {
  unmount();
  if (session_ != nullptr) fuse_session_destroy(session_);
}

Control::Result<void> FuseMount::mount() {
  const auto fail = [](std::string message) {
    return std::unexpected(Failure{FailureCode::importNodeFailed, std::move(message)});
  };
  clearPlace();
  {
    std::ofstream place(place_, std::ios::app);  // what is mounted on
    if (!place) return fail("its place cannot be made");
  }
  fuse_set_log_func(logFuse);
  // "nbd" is how mount(8) shows it.
  std::array<std::string, 3> words{"nbdd", "-o",
                                   fmt::format("fsname=nbd,subtype=nbdd,max_read={}", largestRead)};
  std::array<char*, 3> pointers{words[0].data(), words[1].data(), words[2].data()};
  fuse_args arguments{.argc = static_cast<int>(pointers.size()), .argv = pointers.data(), .allocated = 0};
  session_ = fuse_session_new(&arguments, &operations_, sizeof operations_, user_);
  fuse_opt_free_args(&arguments);
  if (session_ == nullptr) return fail("FUSE gives no session");
  if (fuse_session_mount(session_, place_.c_str()) != 0) {
    return fail("FUSE cannot mount it; the service's log says why");
  }
  mounted_ = true;
  const int descriptor = fuse_session_fd(session_);
  const int flags = ::fcntl(descriptor, F_GETFL);
  if (::fcntl(descriptor, F_SETFL, flags | O_NONBLOCK) != 0) {
    unmount();
    return fail("FUSE's descriptor cannot be made not to block");
  }
  widenReadAhead();
  return {};
}

/// Takes away what a predecessor that was killed has left mounted.
void FuseMount::clearPlace() const {
  while (::umount2(place_.c_str(), MNT_DETACH) == 0) {
  }
  if (errno != EPERM) return;
  // Not ours to unmount, but fusermount3 may. It does nothing, quietly, if nothing is mounted.
  std::array<std::string, 5> words{"fusermount3", "-u", "-q", "-z", place_.native()};
  std::array<char*, 6> pointers{};
  std::ranges::transform(words, pointers.begin(), [](std::string& word) { return word.data(); });
  pid_t child = 0;
  if (::posix_spawnp(&child, pointers[0], nullptr, nullptr, pointers.data(), environ) != 0) return;
  while (::waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
  }
}

/// Lets the kernel read further ahead; root alone may. The mount's device number stands in mountinfo: asking
/// the mount itself would be asking this thread.
void FuseMount::widenReadAhead() const {
  std::ifstream mounts("/proc/self/mountinfo");
  for (std::string line; std::getline(mounts, line);) {
    std::istringstream fields(line);
    std::string id, parent, device, root, place;
    fields >> id >> parent >> device >> root >> place;
    if (place != place_.native()) continue;
    std::ofstream("/sys/class/bdi/" + device + "/read_ahead_kb") << Limits::fileReadAhead / 1024;
  }
}

void FuseMount::unmount() {
  {
    const std::unique_lock lock(mutex_);
    if (!std::exchange(mounted_, false)) return;
  }
  // Nobody uses the descriptor any more. This closes it.
  fuse_session_unmount(session_);
  std::error_code ignored;
  std::filesystem::remove(place_, ignored);
}

FuseMount::Received FuseMount::receive(FuseInput& input) {
  const Hold hold(*this);
  int received = 0;
  do {
    if (!mounted_) return Received::over;
    received = fuse_session_receive_buf(session_, &input.buffer_);
  } while (received == -EINTR);
  if (received == -EAGAIN) return Received::nothing;
  if (received <= 0) return Received::over;
  const Processing processing(*this);
  fuse_session_process_buf(session_, &input.buffer_);
  return Received::request;
}

// --- Answers. After the end of the mount libfuse's descriptor is closed, and its number may be another's.

template <class Reply>
void FuseMount::reply(fuse_req_t request, Reply&& send) {
  const Hold hold(*this);
  if (mounted_) {
    send();
  } else {
    fuse_reply_none(request);
  }
}

void FuseMount::replyError(fuse_req_t request, int error) {
  reply(request, [=] { fuse_reply_err(request, error); });
}

void FuseMount::replyData(fuse_req_t request, std::span<const std::byte> data) {
  reply(request, [=] { fuse_reply_buf(request, reinterpret_cast<const char*>(data.data()), data.size()); });
}

void FuseMount::replyWritten(fuse_req_t request, std::size_t length) {
  reply(request, [=] { fuse_reply_write(request, length); });
}

void FuseMount::replyOffset(fuse_req_t request, std::uint64_t offset) {
  reply(request, [=] { fuse_reply_lseek(request, static_cast<off_t>(offset)); });
}

void FuseMount::replyAttributes(fuse_req_t request, const struct stat& attributes, double validSeconds) {
  reply(request, [&] { fuse_reply_attr(request, &attributes, validSeconds); });
}

bool FuseMount::replyOpen(fuse_req_t request, const fuse_file_info& info) {
  bool opened = false;
  reply(request, [&] { opened = fuse_reply_open(request, &info) == 0; });
  return opened;
}

}  // namespace Nbdd
