#include "nbdd/imports/file_worker.h"

#include <fcntl.h>
#include <linux/falloc.h>
#include <sys/epoll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

#include "nbdd/limits.h"
#include "nbdd/remote/asking.h"

// What libfuse calls while a worker processes a request it has received, and what becomes of each request: it
// waits for the server as a coroutine of the worker.

namespace Nbdd {

namespace {

constexpr double forever = 86400;  // seconds: size and mode of an import do not change

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

/// Part of a read, whose memory is taken for all parts when the first data arrive: most often it is what the
/// previous read has just given back.
class Reading final : public FileRequest::Question {
 public:
  /// `bytes` at `at`, of `size` bytes that go to `buffer`; `skip` of them are before these.
  Reading(FileRequest& request, std::uint64_t at, std::uint64_t bytes, Io::BufferPool& pool,
          Io::Buffer& buffer, std::size_t size, std::size_t skip)
      : Question(request, Nbd::Command::read, at, bytes),
        pool_(pool),
        buffer_(buffer),
        size_(size),
        skip_(skip) {}

  void takeMemory() override {
    if (buffer_.empty()) buffer_ = pool_.take(size_);
    destination = buffer_.bytes().subspan(skip_, length);
  }

 private:
  Io::BufferPool& pool_;
  Io::Buffer& buffer_;
  const std::size_t size_;
  const std::size_t skip_;
};

/// The worker that is about to receive a request on this thread.
thread_local FileWorker* receiving = nullptr;

}  // namespace

// --- What libfuse calls

struct FileWorker::Operations {
  static void init(void* /*session*/, fuse_conn_info* connection) {
    // Data are in memory on both sides: pipes in between would only cost.
    connection->want &= ~unsigned{FUSE_CAP_SPLICE_READ | FUSE_CAP_SPLICE_WRITE | FUSE_CAP_SPLICE_MOVE |
                                  FUSE_CAP_WRITEBACK_CACHE};
    connection->max_background = Limits::fileRequests;
    connection->congestion_threshold = Limits::fileRequests / 4 * 3;
    connection->max_readahead = Limits::fileReadAhead;
    connection->max_read = FuseMount::largestRead;
  }
  static void lookup(fuse_req_t request, fuse_ino_t /*parent*/, const char* /*name*/) {
    receiving->mount_.replyError(request, ENOENT);
  }
  static void getattr(fuse_req_t request, fuse_ino_t /*node*/, fuse_file_info* /*info*/) {
    receiving->replyAttributes(request);
  }
  static void setattr(fuse_req_t request, fuse_ino_t /*node*/, struct stat* wanted, int what,
                      fuse_file_info* /*info*/) {
    FileWorker& worker = *receiving;
    // As with a disk, opening for writing with truncation changes nothing, and there is no other size. Times
    // and modes are not kept.
    const bool truncates = (what & FUSE_SET_ATTR_SIZE) != 0;
    const bool harmless = wanted->st_size == 0 || static_cast<std::uint64_t>(wanted->st_size) == worker.size_;
    if (truncates && !harmless) return worker.mount_.replyError(request, EINVAL);
    worker.replyAttributes(request);
  }
  static void open(fuse_req_t request, fuse_ino_t /*node*/, fuse_file_info* info) {
    receiving->opened(request, info);
  }
  static void release(fuse_req_t request, fuse_ino_t /*node*/, fuse_file_info* /*info*/) {
    receiving->released(request);
  }
  static void read(fuse_req_t request, fuse_ino_t /*node*/, std::size_t length, off_t offset,
                   fuse_file_info* /*info*/) {
    FileWorker& worker = *receiving;
    worker.scope_.spawn(worker.read(request, length, static_cast<std::uint64_t>(offset)));
  }
  static void write(fuse_req_t request, fuse_ino_t /*node*/, const char* data, std::size_t length,
                    off_t offset, fuse_file_info* /*info*/) {
    FileWorker& worker = *receiving;
    const auto start = static_cast<std::uint64_t>(offset);
    if (worker.readOnly()) return worker.mount_.replyError(request, EPERM);
    if (start >= worker.size_) return worker.mount_.replyError(request, ENOSPC);
    // What does not fit is not written, and the writer is told how much was.
    Io::Buffer copy = worker.buffers_.take(std::min<std::uint64_t>(length, worker.size_ - start));
    std::memcpy(copy.data(), data, copy.size());
    const bool whole = worker.isAligned(start, copy.size());
    worker.scope_.spawn(whole ? worker.write(request, std::move(copy), start)
                              : worker.writeAround(request, std::move(copy), start));
  }
  static void fsync(fuse_req_t request, fuse_ino_t /*node*/, int /*dataOnly*/, fuse_file_info* /*info*/) {
    FileWorker& worker = *receiving;
    worker.scope_.spawn(worker.sync(request));
  }
  static void fallocate(fuse_req_t request, fuse_ino_t /*node*/, int mode, off_t offset, off_t length,
                        fuse_file_info* /*info*/) {
    FileWorker& worker = *receiving;
    const auto start = static_cast<std::uint64_t>(offset);
    if (worker.readOnly()) return worker.mount_.replyError(request, EPERM);
    const bool punches = mode == (FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE);
    const bool zeroes = (mode & ~FALLOC_FL_KEEP_SIZE) == FALLOC_FL_ZERO_RANGE;
    if (!punches && !zeroes) return worker.mount_.replyError(request, EOPNOTSUPP);
    const std::uint64_t inside = std::min<std::uint64_t>(static_cast<std::uint64_t>(length),
                                                         worker.size_ - std::min(start, worker.size_));
    const bool grows = (mode & FALLOC_FL_KEEP_SIZE) == 0 && inside < static_cast<std::uint64_t>(length);
    if (grows) return worker.mount_.replyError(request, ENOSPC);
    worker.scope_.spawn(worker.zero(request, start, inside, zeroes));
  }
  static void lseek(fuse_req_t request, fuse_ino_t /*node*/, off_t offset, int whence,
                    fuse_file_info* /*info*/) {
    FileWorker& worker = *receiving;
    const auto start = static_cast<std::uint64_t>(offset);
    if (whence != SEEK_DATA && whence != SEEK_HOLE) return worker.mount_.replyError(request, EINVAL);
    if (start >= worker.size_) return worker.mount_.replyError(request, ENXIO);
    worker.scope_.spawn(worker.seek(request, start, whence == SEEK_HOLE));
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

const fuse_lowlevel_ops& FileWorker::operations() {
  static const fuse_lowlevel_ops table = Operations::table();
  return table;
}

// --- Receiving

FileWorker::FileWorker(Io::EventLoop& loop, Remote::Device& device, FuseMount& mount, FileUsers& users)
    : loop_(loop),
      device_(device),
      mount_(mount),
      users_(users),
      size_(device.limits().size),
      requests_(loop, device, mount) {}

void FileWorker::start() {
  if (std::exchange(watching_, true)) return;
  // Exclusively: one request wakes one worker.
  mount_.withDescriptor(
      [this](int descriptor) { watching_ = loop_.watch(descriptor, EPOLLIN | EPOLLEXCLUSIVE, *this) == 0; });
}

void FileWorker::stop() {
  if (!std::exchange(watching_, false)) return;
  mount_.withDescriptor([this](int descriptor) { loop_.unwatch(descriptor, *this); });
}

Io::Task<void> FileWorker::ended() {
  Io::Scope::Joined joined = scope_.join();
  co_await joined;
}

void FileWorker::onEvents(std::uint32_t /*events*/) {
  const auto* const before = std::exchange(receiving, this);
  auto received = FuseMount::Received::request;
  for (int count = 0; count < requestsPerTurn && received == FuseMount::Received::request; ++count) {
    received = mount_.receive(input_);
  }
  receiving = const_cast<FileWorker*>(before);
  if (received == FuseMount::Received::over) stop();
}

// --- Attributes

bool FileWorker::readOnly() const {
  return (device_.limits().transmissionFlags & Nbd::TransmissionFlag::readOnly) != 0;
}

bool FileWorker::isAligned(std::uint64_t offset, std::uint64_t length) const {
  return ((offset | length) & (device_.limits().minimumBlock - 1)) == 0;
}

void FileWorker::replyAttributes(fuse_req_t request) {
  struct stat attributes{};
  attributes.st_ino = FUSE_ROOT_ID;
  attributes.st_mode = S_IFREG | S_IRUSR | (readOnly() ? 0U : S_IWUSR);
  attributes.st_nlink = 1;
  attributes.st_uid = ::geteuid();
  attributes.st_gid = ::getegid();
  attributes.st_size = static_cast<off_t>(size_);
  attributes.st_blocks = static_cast<blkcnt_t>((size_ + 511) / 512);
  attributes.st_blksize = static_cast<blksize_t>(std::max(device_.preferredBlock(), 4096U));
  attributes.st_atim = attributes.st_mtim = attributes.st_ctim = users_.since;
  mount_.replyAttributes(request, attributes, forever);
}

void FileWorker::opened(fuse_req_t request, fuse_file_info* info) {
  if (readOnly() && (info->flags & O_ACCMODE) != O_RDONLY) return mount_.replyError(request, EROFS);
  // Others may have written to the export since the last program closed it.
  info->keep_cache = users_.count++ > 0 ? 1 : 0;
  // Whoever has it open is known to have it open: an import in use is not disabled.
  users_.tell([this, request, answer = *info] {
    if (mount_.replyOpen(request, answer)) return;
    --users_.count;
    users_.changed();
  });
}

void FileWorker::released(fuse_req_t request) {
  --users_.count;
  mount_.replyError(request, 0);
  users_.changed();
}

// --- Requests

Io::Task<void> FileWorker::read(fuse_req_t incoming, std::size_t length, std::uint64_t offset) {
  FileRequest request(requests_, incoming, FileRequest::Kind::harmless);
  const std::uint64_t block = device_.limits().minimumBlock;
  const std::uint64_t end = std::min(offset + length, size_);
  if (offset >= end) {
    request.replyData({});
    co_return;
  }
  // The blocks around what is asked for. A last block that the size cuts off cannot be read whole.
  const std::uint64_t first = offset / block * block;
  const std::uint64_t last = std::min((end + block - 1) / block * block, size_ / block * block);
  Io::Buffer buffer;
  const std::uint64_t most = device_.limits().maximumPayload / block * block;
  for (std::uint64_t at = first; at < last; at += most) {
    Reading asking(request, at, std::min(most, last - at), buffers_, buffer, last - first, at - first);
    const Nbd::Error error = co_await asking;
    if (error != Nbd::Error::none) {
      request.replyError(errnoOf(error));
      co_return;
    }
  }
  if (last < end) {
    request.replyError(EIO);
    co_return;
  }
  request.replyData(buffer.bytes().subspan(offset - first, end - offset));
}

Io::Task<void> FileWorker::write(fuse_req_t incoming, Io::Buffer data, std::uint64_t offset) {
  FileRequest request(requests_, incoming, FileRequest::Kind::changing);
  Io::Task<void> entering = enterShared();
  co_await entering;
  Nbd::Error error = Nbd::Error::none;
  const std::uint64_t block = device_.limits().minimumBlock;
  const std::uint64_t most = device_.limits().maximumPayload / block * block;
  for (std::uint64_t done = 0; done < data.size() && error == Nbd::Error::none; done += most) {
    FileRequest::Question asking(request, Nbd::Command::write, offset + done,
                                 std::min<std::uint64_t>(most, data.size() - done));
    asking.payload = data.bytes().subspan(done, asking.length);
    error = co_await asking;
  }
  leave();
  if (error != Nbd::Error::none) {
    request.replyError(errnoOf(error));
  } else {
    request.replyWritten(data.size());
  }
}

/// A write that does not fit the server's blocks: reads the blocks around it, and writes them with the new
/// bytes. It is alone while it does so; otherwise it might undo another write to the same block.
Io::Task<void> FileWorker::writeAround(fuse_req_t incoming, Io::Buffer data, std::uint64_t offset) {
  FileRequest request(requests_, incoming, FileRequest::Kind::changing);
  Io::Task<void> entering = enterAlone();
  co_await entering;
  Io::Task<Nbd::Error> replacing = replaceBytes(request, offset, data.bytes());
  const Nbd::Error error = co_await replacing;
  leave();
  if (error != Nbd::Error::none) {
    request.replyError(errnoOf(error));
  } else {
    request.replyWritten(data.size());
  }
}

Io::Task<Nbd::Error> FileWorker::replaceBytes(FileRequest& request, std::uint64_t offset,
                                              std::span<const std::byte> data) {
  const std::uint64_t block = device_.limits().minimumBlock;
  const std::uint64_t most = std::max<std::uint64_t>(device_.limits().maximumPayload / block * block, block);
  while (!data.empty()) {
    const std::uint64_t first = offset / block * block;
    const std::uint64_t part = std::min<std::uint64_t>(data.size(), first + most - offset);
    const std::uint64_t last = (offset + part + block - 1) / block * block;
    Io::Buffer blocks = buffers_.take(last - first);
    FileRequest::Question reading(request, Nbd::Command::read, first, last - first);
    reading.destination = blocks.bytes();
    Nbd::Error error = co_await reading;
    if (error != Nbd::Error::none) co_return error;
    std::ranges::copy(data.first(part), blocks.bytes().begin() + static_cast<std::ptrdiff_t>(offset - first));
    FileRequest::Question writing(request, Nbd::Command::write, first, last - first);
    writing.payload = blocks.bytes();
    error = co_await writing;
    if (error != Nbd::Error::none) co_return error;
    offset += part;
    data = data.subspan(part);
  }
  co_return Nbd::Error::none;
}

Io::Task<void> FileWorker::sync(fuse_req_t incoming) {
  FileRequest request(requests_, incoming, FileRequest::Kind::harmless);
  Nbd::Error error = Nbd::Error::none;
  // A server that has nothing to flush does not offer it.
  if ((device_.limits().transmissionFlags & Nbd::TransmissionFlag::sendFlush) != 0) {
    FileRequest::Question asking(request, Nbd::Command::flush);
    error = co_await asking;
  }
  request.replyError(errnoOf(error));
}

Io::Task<void> FileWorker::zero(fuse_req_t incoming, std::uint64_t offset, std::uint64_t length,
                                bool keepAllocated) {
  FileRequest request(requests_, incoming, FileRequest::Kind::changing);
  if ((device_.limits().transmissionFlags & Nbd::TransmissionFlag::sendWriteZeroes) == 0) {
    request.replyError(EOPNOTSUPP);
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
  Io::Task<Nbd::Error> head = replaceBytes(request, offset, std::span(zeroes).first(first - offset));
  Nbd::Error error = co_await head;
  if (error == Nbd::Error::none) {
    Io::Task<Nbd::Error> middle = zeroBlocks(request, first, last - first, flags);
    error = co_await middle;
  }
  if (error == Nbd::Error::none) {
    Io::Task<Nbd::Error> tail = replaceBytes(request, last, std::span(zeroes).first(end - last));
    error = co_await tail;
  }
  leave();
  request.replyError(errnoOf(error));
}

Io::Task<Nbd::Error> FileWorker::zeroBlocks(FileRequest& request, std::uint64_t offset, std::uint64_t length,
                                            std::uint16_t flags) {
  const std::uint64_t most = Remote::Device::maximumLength(device_.limits());
  while (length > 0) {
    FileRequest::Question asking(request, Nbd::Command::writeZeroes, offset, std::min(most, length));
    asking.flags = flags;
    const Nbd::Error error = co_await asking;
    if (error != Nbd::Error::none) co_return error;
    offset += asking.length;
    length -= asking.length;
  }
  co_return Nbd::Error::none;
}

Io::Task<void> FileWorker::seek(fuse_req_t incoming, std::uint64_t offset, bool forHole) {
  FileRequest request(requests_, incoming, FileRequest::Kind::harmless);
  const std::uint64_t block = device_.limits().minimumBlock;
  std::uint64_t at = offset / block * block;
  while (device_.limits().blockStatus && at < size_) {
    std::vector<Nbd::Extent> extents;
    FileRequest::Question asking(request, Nbd::Command::blockStatus, at,
                                 std::min(size_ - at, Remote::Device::maximumLength(device_.limits())));
    asking.extents = &extents;
    const Nbd::Error error = co_await asking;
    if (error != Nbd::Error::none) {
      request.replyError(errnoOf(error));
      co_return;
    }
    for (const Nbd::Extent& extent : extents) {
      // A hole of a file reads as zeroes: one that may hold anything is none.
      constexpr std::uint64_t both = Nbd::AllocationFlag::hole | Nbd::AllocationFlag::zero;
      const bool isHole = (extent.status & both) == both;
      if (isHole == forHole && at + extent.length > offset) {
        request.replyOffset(std::max(at, offset));
        co_return;
      }
      at += std::min(extent.length, size_ - at);
    }
  }
  // Without an answer all is data; and every file ends with a hole.
  const bool unknown = !device_.limits().blockStatus && !forHole;
  if (!forHole && !unknown) {
    request.replyError(ENXIO);
  } else {
    request.replyOffset(unknown ? offset : size_);
  }
}

// --- Writes of whole blocks go together; any other goes alone. Whoever waits to go alone keeps others from
// beginning, so that his turn comes.

Io::Task<void> FileWorker::enterShared() {
  while (alone_ || waitingAlone_ > 0) {
    Gate gate(gate_);
    co_await gate;
  }
  ++writers_;
}

Io::Task<void> FileWorker::enterAlone() {
  ++waitingAlone_;
  while (alone_ || writers_ > 0) {
    Gate gate(gate_);
    co_await gate;
  }
  --waitingAlone_;
  alone_ = true;
}

void FileWorker::leave() {
  if (alone_) {
    alone_ = false;
  } else {
    --writers_;
  }
  if (alone_ || writers_ > 0) return;
  for (const std::coroutine_handle<> waiter : std::exchange(gate_, {})) {
    loop_.defer([waiter] { waiter.resume(); });
  }
}

}  // namespace Nbdd
