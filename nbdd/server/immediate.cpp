// The requests that need no waiting: carried out within the turn in which they came, answered in its batch of
// replies.

#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string_view>
#include <system_error>
#include <utility>

#include "nbdd/exports/allocation.h"
#include "nbdd/log/log.h"
#include "nbdd/server/read_shape.h"
#include "nbdd/server/transfer_all.h"
#include "nbdd/server/transmission.h"
#include "nbdd/server/wire_error.h"
#include "nbdd/server/worker.h"

namespace Nbdd {

namespace {

// So many reads in a row were not in the page cache: the next ones will not be either. One of so many is
// tried all the same.
constexpr unsigned int missesInARow = 4;
constexpr unsigned int looksApart = 16;

std::string_view commandName(Nbd::Command command) {
  switch (command) {
    case Nbd::Command::read:
      return "READ";
    case Nbd::Command::write:
      return "WRITE";
    case Nbd::Command::disconnect:
      return "DISC";
    case Nbd::Command::flush:
      return "FLUSH";
    case Nbd::Command::trim:
      return "TRIM";
    case Nbd::Command::cache:
      return "CACHE";
    case Nbd::Command::writeZeroes:
      return "WRITE_ZEROES";
    case Nbd::Command::blockStatus:
      return "BLOCK_STATUS";
  }
  return "?";
}

}  // namespace

void Transmission::read(const Request& request) {
  const int file = storage().descriptor();
  if (request.length == 0) {
    reply(request, Nbd::Error::none);
  } else if (goesCompressed(request)) {
    begin(request.length, readCompressed(request));
  } else if (request.length < sendFileLength) {
    if (!isWorthALook() || !readFromMemory(request)) {
      begin(request.length, readSlowly(request));
    }
  } else if (storage().node().memoryBacked || isCached(file, request.offset, request.length)) {
    readBySendFile(request);
  } else {
    begin(request.length, readSlowly(request));
  }
}

/// Never for a few bytes: the chunk that tells of a hole would be larger than the data.
bool Transmission::mayAnswerWithHoles(const Request& request) const {
  return replies_.hasChunks() && (request.flags & Nbd::CommandFlag::df) == 0 &&
         request.length >= replies_.holeSize();
}

/// Fills all of `data`, or returns false.
bool Transmission::readWithoutWaiting(std::span<std::byte> data, std::uint64_t offset) const {
  if (const Mapping* const mapping = storage().mapping(); mapping != nullptr && mapping->read(data, offset)) {
    return true;
  }
  const iovec target{.iov_base = data.data(), .iov_len = data.size()};
  return ::preadv2(storage().descriptor(), &target, 1, static_cast<off_t>(offset),
                   storage().node().memoryBacked ? 0 : RWF_NOWAIT) == static_cast<ssize_t>(data.size());
}

/// Whether to try a read within the turn. A miss costs a system call, and begins to read from the device by
/// itself, where the engine would begin several reads at once.
bool Transmission::isWorthALook() {
  return misses_ < missesInARow || storage().node().memoryBacked || ++passedOver_ % looksApart == 0;
}

/// Reads into the batch of replies without waiting for a device. False: that is not possible.
bool Transmission::readFromMemory(const Request& request) {
  const std::size_t headerSize = replies_.dataHeaderSize();
  const std::span<std::byte> room = batch_.reserve(headerSize + request.length);
  const std::span<std::byte> data = room.subspan(headerSize);
  if (!readWithoutWaiting(data, request.offset)) {
    ++misses_;
    return false;
  }
  misses_ = 0;
  if (mayAnswerWithHoles(request) && isZero(data)) {
    batch_.commit(replies_.hole(room, request, Nbd::ReplyFlag::done, request.offset, request.length));
    countSent(request.length, 0);
    return true;
  }
  replies_.dataHeader(room, request, Nbd::ReplyFlag::done, request.offset, request.length);
  batch_.commit(headerSize + request.length);
  countSent(request.length, request.length);
  return true;
}

/// Sends bytes that are in memory straight from there, holes as holes.
void Transmission::readBySendFile(const Request& request) {
  std::vector<AllocationRun> runs;
  if (mayAnswerWithHoles(request) && storage().mayHaveHoles()) {
    runs = allocationOfRead(storage().descriptor(), storage().knownData(), request.offset, request.length);
  } else {
    runs = {{.length = request.length, .hole = false}};
  }
  publication_->counters->addSent(
      {.transfers = 1, .bytes = request.length, .bytesTransferred = dataLength(runs)});
  std::uint64_t offset = request.offset;
  for (const AllocationRun& run : runs) {
    const std::uint16_t flags = &run == &runs.back() ? Nbd::ReplyFlag::done : std::uint16_t{0};
    if (run.hole) {
      const std::span<std::byte> room = batch_.reserve(replies_.holeSize());
      batch_.commit(replies_.hole(room, request, flags, offset, run.length));
    } else {
      const std::span<std::byte> room = batch_.reserve(replies_.dataHeaderSize());
      batch_.commit(replies_.dataHeader(room, request, flags, offset, run.length));
      batch_.send(true);
      sender_.sendFile(publication_->storage, offset, run.length);
    }
    offset += run.length;
  }
}

void Transmission::writeAtOnce(const Request& request, std::span<const std::byte> data) {
  const int error = storage().failed() ? EIO : writeNow(storage(), data, request.offset);
  if (!data.empty()) {
    received_.transfers += 1;
    received_.bytes += data.size();
    received_.bytesTransferred += data.size();
  }
  // Memory is as stable as such storage gets, so there FUA asks for nothing more.
  if (error == 0 && (request.flags & Nbd::CommandFlag::fua) != 0 && !data.empty() &&
      !storage().node().memoryBacked) {
    begin(0, syncSlowly(request));
    return;
  }
  logFailure(request, error);
  reply(request, wireError(error));
}

void Transmission::flush(const Request& request) {
  if (storage().node().memoryBacked) {
    reply(request, storage().failed() ? Nbd::Error::io : Nbd::Error::none);
  } else {
    begin(0, syncSlowly(request));
  }
}

void Transmission::countSent(std::uint64_t bytes, std::uint64_t transferred) {
  sent_.transfers += 1;
  sent_.bytes += bytes;
  sent_.bytesTransferred += transferred;
}

void Transmission::reply(const Request& request, Nbd::Error error) {
  const std::span<std::byte> room = batch_.reserve(Nbd::ReplyEncoder::maxVerdictSize);
  batch_.commit(encodeReply(room, request, error));
}

/// What the storage refused is of interest to the operator; a fast zeroing that would be slow is not.
void Transmission::logFailure(const Request& request, int error) const {
  if (error != 0 && error != ENOTSUP) {
    log(LogLevel::warning, "io-error", "export {}: request {} for {} bytes at {} failed: {}",
        static_cast<std::uint32_t>(publication_->id), commandName(request.type), request.length,
        request.offset, std::generic_category().message(error));
  }
}

/// A whole reply without data. Returns its size.
std::size_t Transmission::encodeReply(std::span<std::byte> bytes, const Request& request,
                                      Nbd::Error error) const {
  return error == Nbd::Error::none ? replies_.success(bytes, request)
                                   : replies_.failure(bytes, request, error);
}

}  // namespace Nbdd
