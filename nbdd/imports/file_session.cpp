#include "nbdd/imports/file_session.h"

#include <fcntl.h>
#include <fmt/core.h>
#include <linux/falloc.h>
#include <spawn.h>
#include <sys/epoll.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <sstream>
#include <system_error>
#include <utility>
#include <vector>

#include "nbdd/limits.h"
#include "nbdd/log/log.h"
#include "nbdd/remote/asking.h"

// The mounted thing is a single regular file: FUSE's root, mounted on a file. The kernel keeps pages that
// were read, and reads ahead; what is written goes to the server before write(2) returns (no writeback
// cache), so that an error is the writer's, and fsync(2) is a FLUSH. One thread takes all requests from
// /dev/fuse: none of them waits for anything but the server, and for that a coroutine waits.

namespace Nbdd {

namespace {

constexpr double forever = 86400;  // seconds: size and mode of an import do not change

/// Bytes that the kernel reads ahead of a sequential reader; far away servers need more than its usual 128
/// KiB.
constexpr unsigned readAhead = 4096;  // KiB

/// Requests that the kernel may have under way for readers ahead and asynchronous programs.
constexpr unsigned backgroundRequests = 256;

/// Requests taken in one turn of the loop.
constexpr int requestsPerTurn = 64;

int errnoOf(Nbd::Error error) {
  switch (error) {
    case Nbd::Error::none:
      return 0;
    case Nbd::Error::perm:
      return EPERM;
    case Nbd::Error::nomem:
      return ENOMEM;
    case Nbd::Error::inval:
      return EINVAL;
    case Nbd::Error::nospc:
      return ENOSPC;
    case Nbd::Error::notsup:
    case Nbd::Error::overflow:
      return EOPNOTSUPP;
    default:
      return EIO;
  }
}

void logFuse(fuse_log_level /*level*/, const char* format, va_list arguments) {
  std::array<char, 512> text{};
  static_cast<void>(std::vsnprintf(text.data(), text.size(), format, arguments));
  std::string_view line(text.data());
  while (line.ends_with('\n')) line.remove_suffix(1);
  log(LogLevel::info, "fuse", "{}", escaped(line));
}

}  // namespace

// --- What libfuse calls

struct FileNode::Session::Operations {
  static Session& of(fuse_req_t request) { return *static_cast<Session*>(fuse_req_userdata(request)); }

  static void init(void* /*session*/, fuse_conn_info* connection) {
    // Data are in memory on both sides: pipes in between would only cost.
    connection->want &= ~unsigned{FUSE_CAP_SPLICE_READ | FUSE_CAP_SPLICE_WRITE | FUSE_CAP_SPLICE_MOVE |
                                  FUSE_CAP_WRITEBACK_CACHE};
    connection->max_background = backgroundRequests;
    connection->congestion_threshold = backgroundRequests / 4 * 3;
    connection->max_readahead = readAhead * 1024;
  }
  static void lookup(fuse_req_t request, fuse_ino_t /*parent*/, const char* /*name*/) {
    of(request).replyError(request, ENOENT);
  }
  static void getattr(fuse_req_t request, fuse_ino_t /*node*/, fuse_file_info* /*info*/) {
    of(request).replyAttributes(request);
  }
  static void setattr(fuse_req_t request, fuse_ino_t /*node*/, struct stat* wanted, int what,
                      fuse_file_info* /*info*/) {
    Session& session = of(request);
    // As with a disk, opening for writing with truncation changes nothing, and there is no other size. Times
    // and modes are not kept.
    const bool truncates = (what & FUSE_SET_ATTR_SIZE) != 0;
    const bool harmless =
        wanted->st_size == 0 || static_cast<std::uint64_t>(wanted->st_size) == session.size_;
    if (truncates && !harmless) return session.replyError(request, EINVAL);
    session.replyAttributes(request);
  }
  static void open(fuse_req_t request, fuse_ino_t /*node*/, fuse_file_info* info) {
    of(request).opened(request, info);
  }
  static void release(fuse_req_t request, fuse_ino_t /*node*/, fuse_file_info* /*info*/) {
    of(request).released(request);
  }
  static void read(fuse_req_t request, fuse_ino_t /*node*/, std::size_t length, off_t offset,
                   fuse_file_info* /*info*/) {
    Session& session = of(request);
    session.scope_.spawn(session.read(request, length, static_cast<std::uint64_t>(offset)));
  }
  static void write(fuse_req_t request, fuse_ino_t /*node*/, const char* data, std::size_t length,
                    off_t offset, fuse_file_info* /*info*/) {
    Session& session = of(request);
    const auto start = static_cast<std::uint64_t>(offset);
    if (session.readOnly()) return session.replyError(request, EPERM);
    if (start >= session.size_) return session.replyError(request, ENOSPC);
    // What does not fit is not written, and the writer is told how much was.
    Io::Buffer copy = session.buffers_.take(std::min<std::uint64_t>(length, session.size_ - start));
    std::memcpy(copy.data(), data, copy.size());
    const bool whole = session.isAligned(start, copy.size());
    session.scope_.spawn(whole ? session.write(request, std::move(copy), start)
                               : session.writeAround(request, std::move(copy), start));
  }
  static void fsync(fuse_req_t request, fuse_ino_t /*node*/, int /*dataOnly*/, fuse_file_info* /*info*/) {
    Session& session = of(request);
    session.scope_.spawn(session.sync(request));
  }
  static void fallocate(fuse_req_t request, fuse_ino_t /*node*/, int mode, off_t offset, off_t length,
                        fuse_file_info* /*info*/) {
    Session& session = of(request);
    const auto start = static_cast<std::uint64_t>(offset);
    if (session.readOnly()) return session.replyError(request, EPERM);
    const bool punches = mode == (FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE);
    const bool zeroes = (mode & ~FALLOC_FL_KEEP_SIZE) == FALLOC_FL_ZERO_RANGE;
    if (!punches && !zeroes) return session.replyError(request, EOPNOTSUPP);
    const std::uint64_t inside = std::min<std::uint64_t>(static_cast<std::uint64_t>(length),
                                                         session.size_ - std::min(start, session.size_));
    const bool grows = (mode & FALLOC_FL_KEEP_SIZE) == 0 && inside < static_cast<std::uint64_t>(length);
    if (grows) return session.replyError(request, ENOSPC);
    session.scope_.spawn(session.zero(request, start, inside, zeroes));
  }
  static void lseek(fuse_req_t request, fuse_ino_t /*node*/, off_t offset, int whence,
                    fuse_file_info* /*info*/) {
    Session& session = of(request);
    const auto start = static_cast<std::uint64_t>(offset);
    if (whence != SEEK_DATA && whence != SEEK_HOLE) return session.replyError(request, EINVAL);
    if (start >= session.size_) return session.replyError(request, ENXIO);
    session.scope_.spawn(session.seek(request, start, whence == SEEK_HOLE));
  }

  static fuse_lowlevel_ops table() {
    fuse_lowlevel_ops operations{};
    operations.init = init;
    operations.lookup = lookup;
    operations.getattr = getattr;
    operations.setattr = setattr;
    operations.open = open;
    operations.release = release;
    operations.read = read;
    operations.write = write;
    operations.fsync = fsync;
    operations.fallocate = fallocate;
    operations.lseek = lseek;
    return operations;
  }
};

// --- Life

FileNode::Session::Session(NodeContext context)
    : context_(std::move(context)),
      device_(context_.device),
      path_(context_.directory / "disk"),
      size_(device_.limits().size) {
  ::clock_gettime(CLOCK_REALTIME, &mounted_);
}

FileNode::Session::~Session() {
  unmount();
  if (session_ != nullptr) fuse_session_destroy(session_);
  const std::unique_ptr<void, void (*)(void*)> memory(buffer_.mem, &std::free);  // as libfuse allocated it
}

Control::Result<std::filesystem::path> FileNode::Session::mount() {
  const auto fail = [](std::string message) {
    return std::unexpected(Control::Failure{Control::FailureCode::importNodeFailed, std::move(message)});
  };
  clearPlace();
  {
    std::ofstream place(path_, std::ios::app);  // what is mounted on
    if (!place) return fail("its place cannot be made");
  }
  fuse_set_log_func(logFuse);
  // "nbd" is how mount(8) shows it.
  std::array<std::string, 3> words{"nbdd", "-o", "fsname=nbd,subtype=nbdd"};
  std::array<char*, 3> pointers{words[0].data(), words[1].data(), words[2].data()};
  fuse_args arguments{.argc = static_cast<int>(pointers.size()), .argv = pointers.data(), .allocated = 0};
  static const fuse_lowlevel_ops operations = Operations::table();
  session_ = fuse_session_new(&arguments, &operations, sizeof operations, this);
  fuse_opt_free_args(&arguments);
  if (session_ == nullptr) return fail("FUSE gives no session");
  if (fuse_session_mount(session_, path_.c_str()) != 0) {
    return fail("FUSE cannot mount it; the service's log says why");
  }
  mountedNow_ = true;
  descriptor_ = fuse_session_fd(session_);
  const int flags = ::fcntl(descriptor_, F_GETFL);
  if (::fcntl(descriptor_, F_SETFL, flags | O_NONBLOCK) != 0 ||
      context_.loop.watch(descriptor_, EPOLLIN, *this) != 0) {
    unmount();
    return fail("FUSE's descriptor cannot be watched");
  }
  widenReadAhead();
  return path_;
}

/// Takes away what a predecessor that was killed has left mounted.
void FileNode::Session::clearPlace() const {
  while (::umount2(path_.c_str(), MNT_DETACH) == 0) {
  }
  if (errno != EPERM) return;
  // Not ours to unmount, but fusermount3 may. It does nothing, quietly, if nothing is mounted.
  std::array<std::string, 5> words{"fusermount3", "-u", "-q", "-z", path_.native()};
  std::array<char*, 6> pointers{};
  std::ranges::transform(words, pointers.begin(), [](std::string& word) { return word.data(); });
  pid_t child = 0;
  if (::posix_spawnp(&child, pointers[0], nullptr, nullptr, pointers.data(), environ) != 0) return;
  while (::waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
  }
}

/// Lets the kernel read further ahead; root alone may. The mount's device number stands in mountinfo: asking
/// the mount itself would be asking this thread.
void FileNode::Session::widenReadAhead() const {
  std::ifstream mounts("/proc/self/mountinfo");
  for (std::string line; std::getline(mounts, line);) {
    std::istringstream fields(line);
    std::string id, parent, device, root, place;
    fields >> id >> parent >> device >> root >> place;
    if (place != path_.native()) continue;
    std::ofstream("/sys/class/bdi/" + device + "/read_ahead_kb") << readAhead;
  }
}

void FileNode::Session::unmount() {
  if (!std::exchange(mountedNow_, false)) return;
  context_.loop.unwatch(descriptor_, *this);
  // Closes /dev/fuse: whatever programs still wait for fails for them at this moment.
  fuse_session_unmount(session_);
  users_ = 0;
  std::error_code ignored;
  std::filesystem::remove(path_, ignored);
}

Io::Task<void> FileNode::Session::ended() {
  Io::Scope::Joined joined = scope_.join();
  co_await joined;
}

void FileNode::Session::onEvents(std::uint32_t /*events*/) { receive(); }

void FileNode::Session::receive() {
  for (int count = 0; count < requestsPerTurn && mountedNow_; ++count) {
    const int received = fuse_session_receive_buf(session_, &buffer_);
    if (received == -EINTR) continue;
    if (received <= 0) {
      // Somebody else has unmounted it: nobody can use it any more.
      if (received != -EAGAIN) context_.loop.unwatch(descriptor_, *this);
      return;
    }
    fuse_session_process_buf(session_, &buffer_);
  }
}

// --- Attributes

bool FileNode::Session::readOnly() const {
  return (device_.limits().transmissionFlags & Nbd::TransmissionFlag::readOnly) != 0;
}

bool FileNode::Session::isAligned(std::uint64_t offset, std::uint64_t length) const {
  return ((offset | length) & (device_.limits().minimumBlock - 1)) == 0;
}

struct stat FileNode::Session::attributes() const {
  struct stat attributes{};
  attributes.st_ino = FUSE_ROOT_ID;
  attributes.st_mode = S_IFREG | S_IRUSR | (readOnly() ? 0U : S_IWUSR);
  attributes.st_nlink = 1;
  attributes.st_uid = ::geteuid();
  attributes.st_gid = ::getegid();
  attributes.st_size = static_cast<off_t>(size_);
  attributes.st_blocks = static_cast<blkcnt_t>((size_ + 511) / 512);
  attributes.st_blksize = static_cast<blksize_t>(std::max(device_.preferredBlock(), 4096U));
  attributes.st_atim = attributes.st_mtim = attributes.st_ctim = mounted_;
  return attributes;
}

void FileNode::Session::replyAttributes(fuse_req_t request) const {
  const struct stat now = attributes();
  fuse_reply_attr(request, &now, forever);
}

void FileNode::Session::opened(fuse_req_t request, fuse_file_info* info) {
  if (readOnly() && (info->flags & O_ACCMODE) != O_RDONLY) return replyError(request, EROFS);
  // Others may have written to the export since the last program closed it.
  info->keep_cache = users_ > 0 ? 1 : 0;
  if (fuse_reply_open(request, info) != 0) return;
  ++users_;
  context_.changed();
}

void FileNode::Session::released(fuse_req_t request) {
  --users_;
  replyError(request, 0);
  context_.changed();
}

// --- Replies. After the end of the mount libfuse's descriptor is closed, and its number may be another's.

void FileNode::Session::replyError(fuse_req_t request, int error) const {
  if (!mountedNow_) return fuse_reply_none(request);
  fuse_reply_err(request, error);
}

void FileNode::Session::replyData(fuse_req_t request, std::span<const std::byte> data) const {
  if (!mountedNow_) return fuse_reply_none(request);
  fuse_reply_buf(request, reinterpret_cast<const char*>(data.data()), data.size());
}

void FileNode::Session::replyWritten(fuse_req_t request, std::size_t length) const {
  if (!mountedNow_) return fuse_reply_none(request);
  fuse_reply_write(request, length);
}

// --- Requests

Io::Task<void> FileNode::Session::read(fuse_req_t request, std::size_t length, std::uint64_t offset) {
  const std::uint64_t block = device_.limits().minimumBlock;
  const std::uint64_t end = std::min(offset + length, size_);
  if (offset >= end) {
    replyData(request, {});
    co_return;
  }
  // The blocks around what is asked for. A last block that the size cuts off cannot be read whole.
  const std::uint64_t first = offset / block * block;
  const std::uint64_t last = std::min((end + block - 1) / block * block, size_ / block * block);
  Io::Buffer buffer = buffers_.take(std::max(last, end) - first);
  const std::uint64_t most = device_.limits().maximumPayload / block * block;
  for (std::uint64_t at = first; at < last; at += most) {
    Remote::Asking asking(device_, Nbd::Command::read, at, std::min(most, last - at));
    asking.destination = buffer.bytes().subspan(at - first, asking.length);
    const Nbd::Error error = co_await asking;
    if (error != Nbd::Error::none) {
      replyError(request, errnoOf(error));
      co_return;
    }
  }
  if (last < end) {
    replyError(request, EIO);
    co_return;
  }
  replyData(request, buffer.bytes().subspan(offset - first, end - offset));
}

Io::Task<void> FileNode::Session::write(fuse_req_t request, Io::Buffer data, std::uint64_t offset) {
  Io::Task<void> entering = enterShared();
  co_await entering;
  Nbd::Error error = Nbd::Error::none;
  const std::uint64_t block = device_.limits().minimumBlock;
  const std::uint64_t most = device_.limits().maximumPayload / block * block;
  for (std::uint64_t done = 0; done < data.size() && error == Nbd::Error::none; done += most) {
    Remote::Asking asking(device_, Nbd::Command::write, offset + done,
                          std::min<std::uint64_t>(most, data.size() - done));
    asking.payload = data.bytes().subspan(done, asking.length);
    error = co_await asking;
  }
  leave();
  if (error != Nbd::Error::none) {
    replyError(request, errnoOf(error));
  } else {
    replyWritten(request, data.size());
  }
}

/// A write that does not fit the server's blocks: reads the blocks around it, and writes them with the new
/// bytes. It is alone while it does so; otherwise it might undo another write to the same block.
Io::Task<void> FileNode::Session::writeAround(fuse_req_t request, Io::Buffer data, std::uint64_t offset) {
  Io::Task<void> entering = enterAlone();
  co_await entering;
  Io::Task<Nbd::Error> replacing = replaceBytes(offset, data.bytes());
  const Nbd::Error error = co_await replacing;
  leave();
  if (error != Nbd::Error::none) {
    replyError(request, errnoOf(error));
  } else {
    replyWritten(request, data.size());
  }
}

Io::Task<Nbd::Error> FileNode::Session::replaceBytes(std::uint64_t offset, std::span<const std::byte> data) {
  const std::uint64_t block = device_.limits().minimumBlock;
  const std::uint64_t most = std::max<std::uint64_t>(device_.limits().maximumPayload / block * block, block);
  while (!data.empty()) {
    const std::uint64_t first = offset / block * block;
    const std::uint64_t part = std::min<std::uint64_t>(data.size(), first + most - offset);
    const std::uint64_t last = (offset + part + block - 1) / block * block;
    Io::Buffer blocks = buffers_.take(last - first);
    Remote::Asking reading(device_, Nbd::Command::read, first, last - first);
    reading.destination = blocks.bytes();
    Nbd::Error error = co_await reading;
    if (error != Nbd::Error::none) co_return error;
    std::ranges::copy(data.first(part), blocks.bytes().begin() + static_cast<std::ptrdiff_t>(offset - first));
    Remote::Asking writing(device_, Nbd::Command::write, first, last - first);
    writing.payload = blocks.bytes();
    error = co_await writing;
    if (error != Nbd::Error::none) co_return error;
    offset += part;
    data = data.subspan(part);
  }
  co_return Nbd::Error::none;
}

Io::Task<void> FileNode::Session::sync(fuse_req_t request) {
  Nbd::Error error = Nbd::Error::none;
  // A server that has nothing to flush does not offer it.
  if ((device_.limits().transmissionFlags & Nbd::TransmissionFlag::sendFlush) != 0) {
    Remote::Asking asking(device_, Nbd::Command::flush);
    error = co_await asking;
  }
  replyError(request, errnoOf(error));
}

Io::Task<void> FileNode::Session::zero(fuse_req_t request, std::uint64_t offset, std::uint64_t length,
                                       bool keepAllocated) {
  if ((device_.limits().transmissionFlags & Nbd::TransmissionFlag::sendWriteZeroes) == 0) {
    replyError(request, EOPNOTSUPP);
    co_return;
  }
  const std::uint16_t flags = keepAllocated ? Nbd::CommandFlag::noHole : std::uint16_t{0};
  const bool whole = isAligned(offset, length);
  Io::Task<void> entering = whole ? enterShared() : enterAlone();
  co_await entering;
  const std::uint64_t block = device_.limits().minimumBlock;
  const std::uint64_t end = offset + length;
  const std::uint64_t first = std::min((offset + block - 1) / block * block, end);
  const std::uint64_t last = std::max(end / block * block, first);
  const std::vector<std::byte> zeroes(block);
  Io::Task<Nbd::Error> head = replaceBytes(offset, std::span(zeroes).first(first - offset));
  Nbd::Error error = co_await head;
  if (error == Nbd::Error::none) {
    Io::Task<Nbd::Error> middle = zeroBlocks(first, last - first, flags);
    error = co_await middle;
  }
  if (error == Nbd::Error::none) {
    Io::Task<Nbd::Error> tail = replaceBytes(last, std::span(zeroes).first(end - last));
    error = co_await tail;
  }
  leave();
  replyError(request, errnoOf(error));
}

Io::Task<Nbd::Error> FileNode::Session::zeroBlocks(std::uint64_t offset, std::uint64_t length,
                                                   std::uint16_t flags) {
  const std::uint64_t most = Remote::Device::maximumLength(device_.limits());
  while (length > 0) {
    Remote::Asking asking(device_, Nbd::Command::writeZeroes, offset, std::min(most, length));
    asking.flags = flags;
    const Nbd::Error error = co_await asking;
    if (error != Nbd::Error::none) co_return error;
    offset += asking.length;
    length -= asking.length;
  }
  co_return Nbd::Error::none;
}

Io::Task<void> FileNode::Session::seek(fuse_req_t request, std::uint64_t offset, bool forHole) {
  const std::uint64_t block = device_.limits().minimumBlock;
  std::uint64_t at = offset / block * block;
  while (device_.limits().blockStatus && at < size_) {
    std::vector<Nbd::Extent> extents;
    Remote::Asking asking(device_, Nbd::Command::blockStatus, at,
                          std::min(size_ - at, Remote::Device::maximumLength(device_.limits())));
    asking.extents = &extents;
    const Nbd::Error error = co_await asking;
    if (error != Nbd::Error::none) {
      replyError(request, errnoOf(error));
      co_return;
    }
    for (const Nbd::Extent& extent : extents) {
      // A hole of a file reads as zeroes: one that may hold anything is none.
      constexpr std::uint64_t both = Nbd::AllocationFlag::hole | Nbd::AllocationFlag::zero;
      const bool isHole = (extent.status & both) == both;
      if (isHole == forHole && at + extent.length > offset) {
        if (mountedNow_) {
          fuse_reply_lseek(request, static_cast<off_t>(std::max(at, offset)));
        } else {
          fuse_reply_none(request);
        }
        co_return;
      }
      at += std::min(extent.length, size_ - at);
    }
  }
  // Without an answer all is data; and every file ends with a hole.
  const bool unknown = !device_.limits().blockStatus && !forHole;
  if (!forHole && !unknown) {
    replyError(request, ENXIO);
  } else if (mountedNow_) {
    fuse_reply_lseek(request, static_cast<off_t>(unknown ? offset : size_));
  } else {
    fuse_reply_none(request);
  }
}

// --- Writes of whole blocks go together; any other goes alone. Whoever waits to go alone keeps others from
// beginning, so that his turn comes.

Io::Task<void> FileNode::Session::enterShared() {
  while (alone_ || waitingAlone_ > 0) {
    Gate gate(gate_);
    co_await gate;
  }
  ++writers_;
}

Io::Task<void> FileNode::Session::enterAlone() {
  ++waitingAlone_;
  while (alone_ || writers_ > 0) {
    Gate gate(gate_);
    co_await gate;
  }
  --waitingAlone_;
  alone_ = true;
}

void FileNode::Session::leave() {
  if (alone_) {
    alone_ = false;
  } else {
    --writers_;
  }
  if (alone_ || writers_ > 0) return;
  for (const std::coroutine_handle<> waiter : std::exchange(gate_, {})) {
    context_.loop.defer([waiter] { waiter.resume(); });
  }
}

}  // namespace Nbdd
