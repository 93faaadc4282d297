// The requests that wait for storage: each is a coroutine in the scope of its connection's transmission, owns
// the memory that the kernel reads or writes for it, and posts its reply when it is done.

#include <fcntl.h>
#include <linux/falloc.h>
#include <linux/fs.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <coroutine>
#include <utility>

#include "nbd/reply_encoder.h"
#include "nbdd/exports/allocation.h"
#include "nbdd/limits.h"
#include "nbdd/server/read_shape.h"
#include "nbdd/server/transfer_all.h"
#include "nbdd/server/transmission.h"
#include "nbdd/server/wire_error.h"
#include "nbdd/server/worker.h"

namespace Nbdd {

namespace {

constexpr std::size_t zeroBlockSize = std::size_t{1024} * 1024;

std::span<const std::byte> zeroBlock() {
  static const std::array<std::byte, zeroBlockSize> zeroes{};
  return zeroes;
}

Io::Task<int> writeZeroBytes(Io::FileIo& files, int file, std::uint64_t offset, std::uint64_t length) {
  while (length > 0) {
    const auto part = static_cast<std::size_t>(std::min<std::uint64_t>(length, zeroBlockSize));
    Io::Task<int> writing = writeAll(files, file, zeroBlock().first(part), offset);
    const int error = co_await writing;
    if (error != 0) {
      co_return error;
    }
    offset += part;
    length -= part;
  }
  co_return 0;
}

Io::Task<int> allocate(Io::FileIo& files, int file, int mode, std::uint64_t offset, std::uint64_t length) {
  int result = 0;
  do {
    Io::FileOperation operation = Io::FileOperation::allocate(file, mode, offset, length);
    Io::FileIo::Running running = files.run(operation);
    result = co_await running;
  } while (result == -EINTR);
  co_return -result;
}

/// A range cut to whole blocks: [begin, end), empty when there is none inside.
struct BlockRange {
  std::uint64_t begin = 0;
  std::uint64_t end = 0;

  BlockRange(std::uint64_t offset, std::uint64_t length, std::uint64_t block)
      : begin((offset + block - 1) / block * block),
        end(std::max((offset + length) / block * block, begin)) {}
  bool empty() const { return begin == end; }
};

/// Makes the range read as zeroes. `mayUnmap`: it may lose its allocation. `fast`: ENOTSUP, and nothing
/// changed, rather than writing the zeroes. EOVERFLOW, and nothing changed, if they are too many to be
/// written.
Io::Task<int> zeroRange(Io::FileIo& files, std::shared_ptr<Storage> storage, std::uint64_t offset,
                        std::uint64_t length, bool mayUnmap, bool fast) {
  const int file = storage->descriptor();
  const BlockRange whole(offset, length, storage->node().blockDevice ? storage->node().logicalBlock : 1);
  int error = EOPNOTSUPP;
  if (!whole.empty()) {
    if (mayUnmap) {
      storage->noteHoles();
      Io::Task<int> punching = allocate(files, file, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, whole.begin,
                                        whole.end - whole.begin);
      error = co_await punching;
      storage->noteHoles();
    }
    // Without an offload the kernel zeroes a block device by writing, which is not fast.
    if (error == EOPNOTSUPP && !(fast && storage->node().blockDevice)) {
      Io::Task<int> zeroing = allocate(files, file, FALLOC_FL_ZERO_RANGE | FALLOC_FL_KEEP_SIZE, whole.begin,
                                       whole.end - whole.begin);
      error = co_await zeroing;
    }
  }
  if (error == EOPNOTSUPP) {
    if (fast) {
      co_return ENOTSUP;
    }
    if (length > Limits::zeroesWritten) {
      co_return EOVERFLOW;
    }
    Io::Task<int> writing = writeZeroBytes(files, file, offset, length);
    error = co_await writing;
    co_return error;
  }
  if (error != 0) {
    co_return error;
  }
  Io::Task<int> head = writeZeroBytes(files, file, offset, whole.begin - offset);
  error = co_await head;
  if (error == 0) {
    Io::Task<int> tail = writeZeroBytes(files, file, whole.end, offset + length - whole.end);
    error = co_await tail;
  }
  co_return error;
}

/// Runs syncs for all connections of a storage until nobody asks for one any more.
Io::Task<void> runSyncs(Worker& worker, std::shared_ptr<const Publication> publication) {
  Storage& storage = *publication->storage;
  bool again = true;
  while (again) {
    Io::FileOperation operation = Io::FileOperation::syncData(storage.descriptor());
    Io::FileIo::Running running = worker.files().run(operation);
    int result = co_await running;
    if (result == -EINTR) {
      continue;
    }
    if (result < 0 || storage.failed()) {
      // The kernel reports a lost write once; a later sync that succeeds would say nothing about it.
      storage.fail();
      worker.events().storageFailed(publication->id, result < 0 ? -result : EIO);
      result = result < 0 ? result : -EIO;
    }
    again = storage.sync().finish(-result);
  }
}

/// Awaits a sync that begins after this moment; yields 0 or an errno.
class SyncWaiting {
 public:
  SyncWaiting(Worker& worker, std::shared_ptr<const Publication> publication)
      : worker_(worker), publication_(std::move(publication)) {}

  bool await_ready() const noexcept { return false; }
  void await_suspend(std::coroutine_handle<> waiter) {
    // Whichever worker runs the sync, this one's loop resumes the waiter.
    const bool mustRun = publication_->storage->sync().join([this, waiter](int error) {
      worker_.post([this, waiter, error] {
        error_ = error;
        waiter.resume();
      });
    });
    if (mustRun) {
      worker_.scope().spawn(runSyncs(worker_, publication_));
    }
  }
  int await_resume() const noexcept { return error_; }

 private:
  Worker& worker_;
  std::shared_ptr<const Publication> publication_;
  int error_ = 0;
};

std::uint32_t extentStatus(const AllocationRun& run) {
  return run.hole ? Nbd::AllocationFlag::hole | Nbd::AllocationFlag::zero : 0U;
}

}  // namespace

void Transmission::begin(std::size_t bytes, Io::Task<void> task) {
  ++inFlight_;
  inFlightBytes_ += bytes;
  requests_.spawn(counted(bytes, std::move(task)));
}

Io::Task<void> Transmission::counted(std::size_t bytes, Io::Task<void> task) {
  co_await task;
  --inFlight_;
  inFlightBytes_ -= bytes;
  room_.notify();
}

Io::Task<void> Transmission::readSlowly(Request request) {
  MemoryBudget::Waiting memory = worker_.payloadMemory().take(request.length, this);
  MemoryBudget::Share share = co_await memory;
  if (!share) {
    co_return;  // the session ends, and this request had not begun
  }
  const int file = storage().descriptor();
  std::vector<AllocationRun> runs{{.length = request.length, .hole = false}};
  if (request.length >= sendFileLength && mayAnswerWithHoles(request) && storage().mayHaveHoles()) {
    Io::FileOperation look = Io::FileOperation::call([&runs, file, known = &storage().knownData(), request] {
      runs = allocationOfRead(file, *known, request.offset, request.length);
      return 0;
    });
    Io::FileIo::Running looking = worker_.files().run(look);
    co_await looking;
  }
  // The whole reply is put together before any of it is sent: a failure halfway is still an error of its own.
  const std::size_t overhead = runs.size() * std::max(replies_.dataHeaderSize(), replies_.holeSize());
  Io::Buffer buffer = worker_.buffers().take(overhead + dataLength(runs));
  std::size_t used = 0;
  std::uint64_t transferred = 0;
  std::uint64_t offset = request.offset;
  for (const AllocationRun& run : runs) {
    const std::uint16_t flags = &run == &runs.back() ? Nbd::ReplyFlag::done : std::uint16_t{0};
    const std::span<std::byte> room = buffer.bytes().subspan(used);
    bool hole = run.hole;
    if (!hole) {
      const std::span<std::byte> data = room.subspan(replies_.dataHeaderSize(), run.length);
      Io::Task<int> reading = readAll(worker_.files(), file, data, offset);
      const int error = co_await reading;
      if (error != 0) {
        postReply(request, error);
        co_return;
      }
      hole = mayAnswerWithHoles(request) && isZero(data);
    }
    if (hole) {
      used += replies_.hole(room, request, flags, offset, run.length);
    } else {
      used += replies_.dataHeader(room, request, flags, offset, run.length) + run.length;
      transferred += run.length;
    }
    offset += run.length;
  }
  publication_->counters->addSent({.transfers = 1, .bytes = request.length, .bytesTransferred = transferred});
  sender_.post(std::move(buffer), used, std::move(share));
}

Io::Task<void> Transmission::writeSlowly(Request request, Io::Buffer payload, MemoryBudget::Share share,
                                         std::size_t wireLength) {
  int error = EIO;
  if (!storage().failed()) {
    Io::Task<int> writing =
        writeAll(worker_.files(), storage().descriptor(), payload.bytes(), request.offset);
    error = co_await writing;
  }
  payload.reset();
  share = {};
  Io::Task<void> ending = endWrite(request, error, wireLength);
  co_await ending;
}

/// All of it has been written, or `error` came in between.
Io::Task<void> Transmission::endWrite(Request request, int error, std::size_t wireLength) {
  publication_->counters->addReceived({.transfers = 1,
                                       .bytes = request.length,
                                       .bytesTransferred = wireLength > 0 ? wireLength : request.length,
                                       .compressed = wireLength > 0 ? 1U : 0U});
  Io::Task<int> syncing = syncIfAsked(request, error);
  error = co_await syncing;
  postReply(request, error);
}

Io::Task<int> Transmission::syncIfAsked(Request request, int error) {
  if (error != 0 || (request.flags & Nbd::CommandFlag::fua) == 0) {
    co_return error;
  }
  SyncWaiting sync(worker_, publication_);
  const int failure = co_await sync;
  co_return failure;
}

Io::Task<void> Transmission::syncSlowly(Request request) {
  SyncWaiting sync(worker_, publication_);
  const int error = co_await sync;
  postReply(request, error);
}

Io::Task<void> Transmission::trimSlowly(Request request) {
  int error = storage().failed() ? EIO : 0;
  if (error == 0 && request.length > 0) {
    const int file = storage().descriptor();
    const bool blockDevice = storage().node().blockDevice;
    const BlockRange whole(request.offset, request.length, blockDevice ? storage().node().logicalBlock : 1);
    if (!whole.empty()) {
      storage().noteHoles();
      Io::FileOperation operation =
          blockDevice ? Io::FileOperation::call([file, whole] {
            std::array<std::uint64_t, 2> range{whole.begin, whole.end - whole.begin};
            return ::ioctl(file, BLKDISCARD, range.data()) == 0 ? 0 : -errno;
          })
                      : Io::FileOperation::allocate(file, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE,
                                                    whole.begin, whole.end - whole.begin);
      Io::FileIo::Running running = worker_.files().run(operation);
      const int result = co_await running;
      storage().noteHoles();
      // A hint that cannot be followed is no failure.
      error = result == -EOPNOTSUPP || result == -EINTR ? 0 : -result;
    }
  }
  Io::Task<int> syncing = syncIfAsked(request, error);
  error = co_await syncing;
  postReply(request, error);
}

Io::Task<void> Transmission::writeZeroesSlowly(Request request) {
  int error = storage().failed() ? EIO : 0;
  if (error == 0 && request.length > 0) {
    const bool mayUnmap = (request.flags & Nbd::CommandFlag::noHole) == 0;
    const bool fast = (request.flags & Nbd::CommandFlag::fastZero) != 0;
    Io::Task<int> zeroing =
        zeroRange(worker_.files(), publication_->storage, request.offset, request.length, mayUnmap, fast);
    error = co_await zeroing;
  }
  Io::Task<int> syncing = syncIfAsked(request, error);
  error = co_await syncing;
  postReply(request, error);
}

Io::Task<void> Transmission::cacheSlowly(Request request) {
  if (request.length > 0) {
    Io::FileOperation operation = Io::FileOperation::willNeed(
        storage().descriptor(), request.offset, std::min(request.length, Limits::prefetchLength));
    Io::FileIo::Running running = worker_.files().run(operation);
    co_await running;
  }
  // Prefetching is a hint: whether it came to something shows when the bytes are read.
  postReply(request, 0);
}

Io::Task<void> Transmission::blockStatusSlowly(Request request) {
  const std::size_t maximumRuns = (request.flags & Nbd::CommandFlag::reqOne) != 0
                                      ? 1
                                      : std::min(Limits::extentsPerReply, Nbd::maxExtentsSent);
  std::expected<std::vector<AllocationRun>, int> runs;
  if (storage().node().blockDevice) {
    runs = std::vector<AllocationRun>{{.length = request.length, .hole = false}};
  } else {
    // Walking a fragmented file takes a while: on a thread of its own.
    const int file = storage().descriptor();
    Io::FileOperation operation =
        Io::FileOperation::call([&runs, file, known = &storage().knownData(), request, maximumRuns] {
          runs = allocation(file, *known, request.offset, request.length, maximumRuns);
          return 0;
        });
    Io::FileIo::Running running = worker_.files().run(operation);
    co_await running;
  }
  if (!runs) {
    postReply(request, runs.error());
    co_return;
  }
  std::vector<Nbd::Extent> extents;
  extents.reserve(runs->size());
  for (const AllocationRun& run : *runs) {
    extents.push_back({.length = run.length, .status = extentStatus(run)});
  }
  Io::Buffer buffer = worker_.buffers().take(replies_.blockStatusSize(extents.size()));
  const std::size_t size = replies_.blockStatus(buffer.bytes(), request, Nbd::ReplyFlag::done,
                                                allocationContext_.value_or(0), extents);
  sender_.post(std::move(buffer), size);
}

void Transmission::postReply(const Request& request, int error) {
  logFailure(request, error);
  std::array<std::byte, Nbd::ReplyEncoder::maxVerdictSize> bytes;
  sender_.post(std::span(bytes).first(encodeReply(bytes, request, wireError(error))));
}

}  // namespace Nbdd
