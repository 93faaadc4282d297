// Compressed transfers of a connection that agreed on them: a READ is answered in compressed blocks where
// that saves something, and a WRITE may come in them. Small transfers are compressed and expanded on the
// loop, large ones on threads for that, as many as there are processors. A connection that did not agree
// comes here for nothing but the question.

#include <algorithm>
#include <array>
#include <cerrno>
#include <optional>
#include <utility>

#include "nbd/compressed.h"
#include "nbd/validation.h"
#include "nbdd/compression/block_codec.h"
#include "nbdd/limits.h"
#include "nbdd/server/read_shape.h"
#include "nbdd/server/transfer_all.h"
#include "nbdd/server/transmission.h"
#include "nbdd/server/worker.h"

namespace Nbdd {

namespace {

/// Does `work` (which yields nothing, and touches only what outlives this): at once if it is about few bytes,
/// or else on another thread.
template <class Work>
Io::Task<void> doAside(Io::FileIo& computing, std::size_t bytes, Work work) {
  if (bytes <= Limits::compressionInline) {
    work();
    co_return;
  }
  Io::FileOperation operation = Io::FileOperation::call([&work] {
    work();
    return 0;
  });
  Io::FileIo::Running running = computing.run(operation);
  co_await running;
}

}  // namespace

bool Transmission::goesCompressed(const Request& request) const {
  return compression_ && request.length >= Limits::compressionSmallest;
}

/// A write whose data come compressed, and what has arrived behind its header. Returns as executeOne.
std::size_t Transmission::executeCompressedWrite(Request request, std::span<const std::byte> behind) {
  if (behind.size() < Nbd::compressedLengthSize) {
    return 0;
  }
  const std::size_t wireLength = Nbd::loadBig<std::uint32_t>(behind.first<Nbd::compressedLengthSize>());
  const std::size_t headerSize = Nbd::requestSizeOf(limits_.headers) + Nbd::compressedLengthSize;
  request.flags &= static_cast<std::uint16_t>(~Nbd::CommandFlag::compressed);
  if (!Nbd::isCompressedLength(wireLength, request.length)) {
    over();  // what follows cannot be told from it
    return 0;
  }
  if (const std::optional<Nbd::Error> error = Nbd::validate(request, limits_)) {
    if (!Nbd::payloadIsDrained(request, limits_)) {
      over();
      return 0;
    }
    reply(request, *error);
    drain_ = wireLength;
    return headerSize;
  }
  const std::span<const std::byte> arrived = behind.subspan(Nbd::compressedLengthSize);
  if (arrived.size() < wireLength) {
    if (headerSize + wireLength <= Limits::inputBatch / 4) {
      return 0;  // the rest comes into the same memory
    }
    incoming_ = request;
    incomingWire_ = wireLength;
    return headerSize;
  }
  if (!reserveMemory(request)) {
    carriedIsRunnable_ = true;
    return 0;
  }
  Io::Buffer blocks = worker_.buffers().take(wireLength);
  std::ranges::copy(arrived.first(wireLength), blocks.data());
  begin(request.length, writeCompressed(request, std::move(blocks), std::exchange(memory_, {})));
  return headerSize + wireLength;
}

Io::Task<void> Transmission::writeCompressed(Request request, Io::Buffer blocks, MemoryBudget::Share share) {
  Io::Buffer plain = worker_.buffers().take(request.length);
  const std::uint32_t blockLength = compression_->blockLength;
  bool good = false;
  // What is written to memory waits for nothing, and here the processor has it in its caches.
  std::optional<int> written;
  auto expand = [&, blockLength] {
    good = expandBlocks(blocks.bytes(), blockLength, plain.bytes());
    if (!good || !storage().node().memoryBacked) return;
    written = storage().failed() ? EIO : writeNow(storage(), plain.bytes(), request.offset);
  };
  Io::Task<void> expanding = doAside(worker_.computing(), request.length, expand);
  co_await expanding;
  const std::size_t wireLength = blocks.size();
  blocks.reset();
  if (!good) {
    std::array<std::byte, Nbd::ReplyEncoder::maxVerdictSize> bytes;
    sender_.post(std::span(bytes).first(encodeReply(bytes, request, Nbd::Error::inval)));
    co_return;
  }
  if (written) {
    plain.reset();
    share = {};
    Io::Task<void> ending = endWrite(request, *written, wireLength);
    co_await ending;
    co_return;
  }
  Io::Task<void> writing = writeSlowly(request, std::move(plain), std::move(share), wireLength);
  co_await writing;
}

Io::Task<void> Transmission::readCompressed(Request request) {
  MemoryBudget::Waiting memory = worker_.payloadMemory().take(2 * request.length, this);
  MemoryBudget::Share share = co_await memory;
  if (!share) {
    co_return;  // the session ends, and this request had not begun
  }
  // What does not shrink leaves as it was read, so there is room for its header before it.
  Io::Buffer whole = worker_.buffers().take(replies_.dataHeaderSize() + request.length);
  const std::span<std::byte> plain = whole.bytes().subspan(replies_.dataHeaderSize());
  if (!readWithoutWaiting(plain, request.offset)) {
    Io::Task<int> reading = readAll(worker_.files(), storage().descriptor(), plain, request.offset);
    const int error = co_await reading;
    if (error != 0) {
      postReply(request, error);
      co_return;
    }
  }
  TransferCounters::Batch sent{.transfers = 1, .bytes = request.length};
  if (mayAnswerWithHoles(request) && isZero(plain)) {
    const std::size_t size =
        replies_.hole(whole.bytes(), request, Nbd::ReplyFlag::done, request.offset, request.length);
    publication_->counters->addSent(sent);
    sender_.post(whole.bytes().first(size));
    co_return;
  }
  std::size_t wireLength = 0;
  Io::Buffer blocks;
  const std::uint32_t blockLength = compression_->blockLength;
  if (std::vector<Attempt> attempts = sampler_.choose(plain, blockLength); !attempts.empty()) {
    const std::vector<Attempt> before = attempts;
    blocks = worker_.buffers().take(replies_.compressedHeaderSize() + request.length);
    const std::span<std::byte> room = blocks.bytes().subspan(replies_.compressedHeaderSize());
    const Effort effort = effortFor(sender_.backlog());
    auto compress = [&] { wireLength = compressBlocks(plain, blockLength, effort, attempts, room); };
    Io::Task<void> compressing = doAside(worker_.computing(), request.length, compress);
    co_await compressing;
    sampler_.note(before, attempts);
  }
  sent.compressed = wireLength > 0 ? 1 : 0;
  sent.bytesTransferred = wireLength > 0 ? wireLength : request.length;
  publication_->counters->addSent(sent);
  if (wireLength > 0) {
    // What waits for the client shall take as much memory as there is to send.
    Io::Buffer packed = worker_.buffers().take(replies_.compressedHeaderSize() + wireLength);
    const std::size_t header = replies_.compressedHeader(packed.bytes(), request, Nbd::ReplyFlag::done,
                                                         request.offset, request.length, wireLength);
    std::ranges::copy(blocks.bytes().subspan(header, wireLength), packed.data() + header);
    sender_.post(std::move(packed), header + wireLength, std::move(share));
  } else {
    replies_.dataHeader(whole.bytes(), request, Nbd::ReplyFlag::done, request.offset, request.length);
    sender_.post(std::move(whole), replies_.dataHeaderSize() + request.length, std::move(share));
  }
}

}  // namespace Nbdd
