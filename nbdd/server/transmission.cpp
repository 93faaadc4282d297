#include "nbdd/server/transmission.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "nbd/validation.h"
#include "nbdd/limits.h"
#include "nbdd/server/worker.h"

namespace Nbdd {

namespace {

// Writes up to this size are carried out within the turn when the storage is memory; larger ones would keep
// the other connections waiting.
constexpr std::uint32_t inlineWriteLength = 1024 * 1024;

// The data of writes up to this size are collected in the turn's input; larger ones get memory of their own
// as they arrive.
constexpr std::uint32_t collectedPayload = 64 * 1024;

// Taken from a busy connection in one piece while the data of a large write arrive.
constexpr std::size_t payloadPiece = std::size_t{1024} * 1024;

}  // namespace

Transmission::Transmission(Worker& worker, Io::Stream& stream, Sender& sender,
                           std::shared_ptr<const Publication> publication,
                           const Nbd::ServerHandshake::Agreement& agreement,
                           std::optional<Nbd::Extension::Compression> compression)
    : worker_(worker),
      stream_(stream),
      sender_(sender),
      publication_(std::move(publication)),
      limits_(agreement.limits()),
      replies_(limits_.headers),
      allocationContext_(agreement.allocationContext),
      compression_(replies_.hasChunks() ? compression : std::nullopt),
      batch_(worker.replyMemory(), sender),
      guard_(worker.loop(), [this] { guardExpired(); }),
      room_(worker.loop()) {}

Io::Task<void> Transmission::run(std::vector<std::byte> received) {
  keep(received);
  carriedIsRunnable_ = !received.empty();
  received = {};
  while (!over_) {
    if (!hasRoom()) {
      memory_ = {};  // others may have it while this client does not read
      // Whichever ends first makes room: a request, or the sending of its reply.
      Io::Signal& signal = sender_.pending() >= Limits::pendingReplies ? sender_.progress() : room_;
      Io::Signal::Waiting room = signal.wait();
      co_await room;
      continue;
    }
    if (neededMemory_ > 0) {
      MemoryBudget::Waiting memory = worker_.payloadMemory().take(std::exchange(neededMemory_, 0), this);
      memory_ = co_await memory;
      continue;
    }
    const std::optional<std::span<const std::byte>> input = takeInput();
    if (!input) {
      if (over_) {
        break;
      }
      // While requests wait for storage their replies bring the next ones singly, and storage shall have them
      // all.
      const std::size_t threshold = inFlight_ == 0 ? moderation_.threshold() : 1;
      stream_.setReceiveThreshold(threshold);
      if (threshold > 1) {
        guard_.start(ReceiveModeration::guardTime);
      }
      Io::Stream::Waiting readable = stream_.readable();
      co_await readable;
      guard_.cancel();
      continue;
    }
    const std::size_t used = execute(*input);
    keep(input->subspan(used));
    const std::size_t taken = std::exchange(taken_, 0);
    if (inFlight_ == 0) {
      moderation_.turned(taken, used);
    }
    endTurn();
    if (incoming_ && !over_) {
      Io::Task<void> receiving = receivePayload();
      co_await receiving;
    } else if (!over_ && !stream_.drained()) {
      Io::EndOfTurn turn(worker_.loop());
      co_await turn;
    }
  }
  stream_.setReceiveThreshold(1);
  carried_.reset();
  memory_ = {};
  Io::Scope::Joined joined = requests_.join();
  co_await joined;
}

void Transmission::stop() {
  over();
  room_.notify();
  sender_.progress().notify();
  worker_.payloadMemory().cancel(this);
}

/// The wait for several requests takes long.
void Transmission::guardExpired() {
  if (moderation_.guardExpired(stream_.available())) {
    guard_.start(ReceiveModeration::guardTime);
  } else {
    stream_.setReceiveThreshold(moderation_.threshold());
  }
}

/// What was carried over and what has arrived since, in the worker's input memory; nothing when there is
/// nothing new, or when the client is gone (then it is over).
std::optional<std::span<const std::byte>> Transmission::takeInput() {
  const std::span<std::byte> memory = worker_.inputMemory();
  if (carriedIsRunnable_) {
    std::ranges::copy(carried_.bytes(), memory.begin());
    return memory.first(carried_.size());
  }
  if (stream_.drained()) {
    return std::nullopt;
  }
  // Behind one large write there is often another, and its data shall go where they belong, not here.
  const std::size_t most = std::exchange(largeWriteEnded_, false) ? Nbd::requestSizeOf(limits_.headers)
                                                                  : memory.size() - carried_.size();
  const ssize_t count = stream_.receive(memory.subspan(carried_.size(), most));
  if (count <= 0) {
    if (count != -EAGAIN) {
      over();
    }
    return std::nullopt;
  }
  std::ranges::copy(carried_.bytes(), memory.begin());
  return memory.first(carried_.size() + static_cast<std::size_t>(count));
}

/// Keeps what the turn did not use. An idle connection keeps nothing.
void Transmission::keep(std::span<const std::byte> rest) {
  Io::Buffer kept;
  if (!rest.empty()) {
    kept = worker_.buffers().take(rest.size());
    std::ranges::copy(rest, kept.data());
  }
  carried_ = std::move(kept);
}

bool Transmission::hasRoom() const {
  return inFlight_ < Limits::requestsInFlight && inFlightBytes_ < Limits::connectionPayload &&
         sender_.pending() < Limits::pendingReplies;
}

/// Carries out requests while there is room; returns how many bytes of the input that took.
std::size_t Transmission::execute(std::span<const std::byte> input) {
  std::size_t used = 0;
  carriedIsRunnable_ = false;
  while (!over_ && !incoming_) {
    if (!hasRoom()) {
      carriedIsRunnable_ = input.size() - used >= Nbd::requestSizeOf(limits_.headers);
      break;
    }
    const std::size_t taken = executeOne(input.subspan(used));
    if (taken == 0) {
      break;
    }
    used += taken;
    ++taken_;
  }
  return used;
}

/// Carries out the request at the front; 0 if it has not arrived whole.
std::size_t Transmission::executeOne(std::span<const std::byte> input) {
  if (drain_ > 0) {
    const auto count = static_cast<std::size_t>(std::min<std::uint64_t>(drain_, input.size()));
    drain_ -= count;
    return count;
  }
  const std::size_t headerSize = Nbd::requestSizeOf(limits_.headers);
  if (input.size() < headerSize) {
    return 0;
  }
  const std::optional<Request> request =
      limits_.headers == Nbd::HeaderStyle::extended
          ? Nbd::decodeExtendedRequest(input.first<Nbd::extendedRequestSize>())
          : Nbd::decodeRequest(input.first<Nbd::requestSize>());
  if (!request) {
    over();
    return 0;
  }
  if (compression_ && request->type == Nbd::Command::write &&
      (request->flags & Nbd::CommandFlag::compressed) != 0) [[unlikely]] {
    return executeCompressedWrite(*request, input.subspan(headerSize));
  }
  if (const std::optional<Nbd::Error> error = Nbd::validate(*request, limits_)) {
    return refuse(*request, *error);
  }
  if (request->type == Nbd::Command::write) {
    return executeWrite(*request, input.subspan(headerSize));
  }
  if (Nbd::payloadLength(*request, limits_.headers) > 0) [[unlikely]] {
    return executeFiltered(*request, input.subspan(headerSize));
  }
  expectNext(input.subspan(headerSize));
  carryOut(*request);
  return headerSize;
}

/// Has the memory of the read that stands next in `input` fetched, if there is one, while this one is carried
/// out.
void Transmission::expectNext(std::span<const std::byte> input) const {
  const Mapping* const mapping = storage().mapping();
  if (mapping == nullptr || input.size() < Nbd::requestSize ||
      limits_.headers == Nbd::HeaderStyle::extended) {
    return;
  }
  const std::optional<Request> next = Nbd::decodeRequest(input.first<Nbd::requestSize>());
  if (next && next->type == Nbd::Command::read && !Nbd::validate(*next, limits_)) {
    mapping->prefetch(next->offset);
  }
}

/// A write, and what has arrived behind it. Returns as executeOne.
std::size_t Transmission::executeWrite(const Request& request, std::span<const std::byte> payload) {
  const std::size_t headerSize = Nbd::requestSizeOf(limits_.headers);
  if (payload.size() < request.length) {
    if (request.length <= collectedPayload) {
      return 0;
    }
    incoming_ = request;
    return headerSize;
  }
  const std::span<const std::byte> data = payload.first(request.length);
  if (!mustWait(request)) {
    memory_ = {};
    writeAtOnce(request, data);
  } else if (reserveMemory(request)) {
    Io::Buffer copy = worker_.buffers().take(data.size());
    std::ranges::copy(data, copy.data());
    begin(data.size(), writeSlowly(request, std::move(copy), std::exchange(memory_, {})));
  } else {
    carriedIsRunnable_ = true;
    return 0;
  }
  return headerSize + request.length;
}

/// A request for the status of some contexts alone, and what has arrived behind it. Returns as executeOne.
std::size_t Transmission::executeFiltered(const Request& request, std::span<const std::byte> payload) {
  if (payload.size() < request.length) {
    return 0;
  }
  const std::optional<Request> plain =
      Nbd::applyStatusFilter(request, payload.first(request.length), allocationContext_.value_or(0));
  const std::optional<Nbd::Error> error = plain ? Nbd::validate(*plain, limits_) : Nbd::Error::inval;
  if (error) {
    reply(request, *error);
  } else {
    carryOut(*plain);
  }
  return Nbd::requestSizeOf(limits_.headers) + request.length;
}

/// Whether the memory for a write, which has to wait for storage, is there. If not, the connection waits for
/// it.
bool Transmission::reserveMemory(const Request& request) {
  if (memory_) {
    return true;
  }
  memory_ = worker_.payloadMemory().tryTake(request.length);
  neededMemory_ = memory_ ? 0 : request.length;
  return static_cast<bool>(memory_);
}

/// Whether a write cannot be carried out within the turn.
bool Transmission::mustWait(const Request& request) const {
  if (storage().node().memoryBacked) {
    return request.length > inlineWriteLength;
  }
  // A write over a network, or to a FUSE file system, may wait for a server that is gone. And of a page that
  // is written in part the rest might have to be read first.
  static const auto page = static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE));
  return request.length > 0 &&
         (!storage().node().localDisk || request.length > collectedPayload || request.offset % page != 0 ||
          request.length % page != 0 || !storage().writePace().quick(worker_.loop().now()));
}

std::size_t Transmission::refuse(const Request& request, Nbd::Error error) {
  if (!Nbd::payloadIsDrained(request, limits_)) {
    over();
    return 0;
  }
  reply(request, error);
  drain_ = Nbd::payloadLength(request, limits_.headers);
  return Nbd::requestSizeOf(limits_.headers);
}

void Transmission::carryOut(const Request& request) {
  switch (request.type) {
    case Nbd::Command::read:
      read(request);
      break;
    case Nbd::Command::disconnect:
      over();
      break;
    case Nbd::Command::flush:
      flush(request);
      break;
    case Nbd::Command::trim:
      begin(0, trimSlowly(request));
      break;
    case Nbd::Command::cache:
      begin(0, cacheSlowly(request));
      break;
    case Nbd::Command::writeZeroes:
      begin(0, writeZeroesSlowly(request));
      break;
    case Nbd::Command::blockStatus:
      begin(replies_.blockStatusSize(Limits::extentsPerReply), blockStatusSlowly(request));
      break;
    case Nbd::Command::write:
      std::terminate();  // taken with its data, in executeWrite
  }
}

/// Adds up what the turn transferred and sends its replies: who has been answered finds it counted.
void Transmission::endTurn() {
  if (received_.transfers > 0) {
    publication_->counters->addReceived(std::exchange(received_, {}));
  }
  if (sent_.transfers > 0) {
    publication_->counters->addSent(std::exchange(sent_, {}));
  }
  batch_.send();
}

/// Receives the data of a large write into memory of its own and carries it out. When the connection ends
/// before they are complete, nothing of them is written.
Io::Task<void> Transmission::receivePayload() {
  const Request request = *std::exchange(incoming_, std::nullopt);
  const std::size_t wireLength = std::exchange(incomingWire_, 0);
  const std::size_t length = wireLength > 0 ? wireLength : request.length;
  Payload payload;
  // The pages behind this are not touched before data arrive for them.
  payload.buffer = worker_.buffers().take(length);
  // Had all of it arrived, it would not have come here.
  std::ranges::copy(carried_.bytes(), payload.buffer.data());
  payload.filled = carried_.size();
  carried_.reset();
  Io::Task<bool> beginning = receiveUpTo(payload, std::min<std::size_t>(length, Limits::payloadFirstPiece));
  bool complete = co_await beginning;
  if (complete) {
    MemoryBudget::Waiting waiting = worker_.payloadMemory().take(request.length + wireLength, this);
    payload.share = co_await waiting;
    Io::Task<bool> receiving = receiveUpTo(payload, length);
    complete = co_await receiving;
  }
  stream_.setReceiveThreshold(1);
  largeWriteEnded_ = true;
  if (!complete) {
    over();
  } else if (wireLength > 0) {
    begin(request.length, writeCompressed(request, std::move(payload.buffer), std::move(payload.share)));
  } else if (!mustWait(request)) {
    writeAtOnce(request, payload.buffer.bytes());
    endTurn();
  } else {
    begin(request.length, writeSlowly(request, std::move(payload.buffer), std::move(payload.share)));
  }
}

/// Awaits that the first `length` bytes of the payload have arrived. False: they never will, or take too
/// long.
Io::Task<bool> Transmission::receiveUpTo(Payload& payload, std::size_t length) {
  Io::Clock::time_point lastProgress = worker_.loop().now();
  // What waits below the threshold has arrived too.
  const auto arrived = [&] { return payload.filled + stream_.available(); };
  std::size_t arrivedBefore = arrived();
  Io::Timer stall(worker_.loop(), [&] {
    const std::size_t arrivedNow = arrived();
    const std::size_t progress = arrivedNow - std::exchange(arrivedBefore, arrivedNow);
    const Io::Clock::time_point now = worker_.loop().now();
    if (progress > 0) {
      lastProgress = now;
    }
    if ((payload.share.contended() && progress < Limits::contendedProgress) ||
        now - lastProgress >= Limits::stallTime) {
      stream_.shutDown();
    } else {
      stall.start(Limits::contendedPeriod);
    }
  });
  while (payload.filled < length && !over_) {
    const std::size_t wanted = std::min(length - payload.filled, payloadPiece);
    const ssize_t count = stream_.receive(payload.buffer.bytes().subspan(payload.filled, wanted));
    if (count > 0) {
      payload.filled += static_cast<std::size_t>(count);
      if (static_cast<std::size_t>(count) == wanted) {
        Io::EndOfTurn turn(worker_.loop());
        co_await turn;
      }
      continue;
    }
    if (count != -EAGAIN) {
      co_return false;
    }
    if (!stall.running()) {
      stall.start(Limits::contendedPeriod);
    }
    stream_.setReceiveThreshold(std::min(wanted, Limits::contendedProgress));
    Io::Stream::Waiting readable = stream_.readable();
    co_await readable;
  }
  co_return !over_;
}

}  // namespace Nbdd
