#include "nbdd/remote/connection.h"

#include <fmt/core.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

#include "nbd/contract.h"
#include "nbd/request.h"
#include "nbdd/log/log.h"

// Requests leave through one coroutine (sendAll), replies arrive through another (receiveAll). What arrives
// is taken apart as it comes: a header says which request it is about and what follows; data of a read are
// received right into the memory of whoever asked, all else passes through a buffer.
//
// How it ends matters more than how it runs. A request may be asked again on another connection only when the
// server cannot act on this one any more. If the server closes, that is so. If it is we who give up, we say
// that nothing more comes and go on reading, until the server closes: see drain().

namespace Nbdd::Remote {

namespace {

constexpr std::size_t directThreshold = 4096;  // below it, copying costs less than a system call of its own

// Where requests are as large as this, the headers of replies are received alone, several of them perhaps, so
// that no more than that of the data is copied once more.
constexpr std::size_t largeRequest = std::size_t{64} * 1024;
constexpr std::size_t headersAlone = 256;

std::uint64_t loadOf(const Request& request) {
  constexpr std::uint64_t least = 4096;
  const std::uint64_t data = request.command == Nbd::Command::read ? request.length : request.payload.size();
  return std::max(data, least);
}

Nbd::Error known(Nbd::Error error) {
  switch (error) {
    case Nbd::Error::none:
    case Nbd::Error::perm:
    case Nbd::Error::io:
    case Nbd::Error::nomem:
    case Nbd::Error::nospc:
    case Nbd::Error::overflow:
    case Nbd::Error::notsup:
    case Nbd::Error::shutdown:
      return error;
    default:
      return Nbd::Error::inval;
  }
}

/// Errors that TCP finds by itself, without a word from the other host's.
bool isSilence(int error) {
  return error == ETIMEDOUT || error == EHOSTUNREACH || error == ENETUNREACH || error == EHOSTDOWN ||
         error == ENETDOWN;
}

}  // namespace

Connection::Connection(Io::EventLoop& loop, Dialled dialled, Events events)
    : stream_(std::move(dialled.stream)),
      agreement_(std::move(dialled.agreement)),
      events_(std::move(events)),
      compression_(sendsChunks() ? dialled.compression : std::nullopt),
      work_(loop),
      input_(Limits::importInput) {
  freeSlots_.reserve(slots);
  for (std::size_t slot = slots; slot > 0; --slot) freeSlots_.push_back(static_cast<std::uint8_t>(slot - 1));
  if (dialled.received.size() > input_.size()) input_.resize(dialled.received.size());
  std::ranges::copy(dialled.received, input_.begin());
  end_ = dialled.received.size();
}

Io::Task<Connection::Ending> Connection::run() {
  sending_.spawn(sendAll());
  Io::Task<Ending> receiving = receiveAll();
  Ending ending = co_await receiving;
  accepting_ = false;
  over_ = true;
  work_.notify();
  if (ending.kind == Kind::violation || ending.kind == Kind::retired) {
    if (ending.kind == Kind::retired) takeLeave();
    if (!stopped_ && !left_) events_.draining(ending.reason);
    Io::Task<bool> draining = drain();
    const bool ended = co_await draining;
    if (!ended) ending.kind = Kind::silent;
  }
  if (stopped_) ending.kind = Kind::stopped;
  stream_->shutDown();
  Io::Scope::Joined joined = sending_.join();
  co_await joined;
  co_return ending;
}

void Connection::leave() {
  if (retiring_ || stopped_ || over_) return;
  left_ = true;
  retire();
  if (inFlight_ == 0) {
    takeLeave();
    stream_->endSending();  // whoever receives waits for the server's end, which follows
  }
}

void Connection::stop() {
  stopped_ = true;
  accepting_ = false;
  if (!over_ && inFlight_ == 0) takeLeave();
  over_ = true;
  work_.notify();
  stream_->shutDown();  // wakes whoever waits for it, from the loop
}

/// Tells the server that nothing more comes; if it cannot be told without waiting, the end of the stream will
/// do.
void Connection::takeLeave() {
  std::array<std::byte, Nbd::extendedRequestSize> bytes;
  encode({.type = Nbd::Command::disconnect}, bytes);
  const ssize_t count = stream_->send(std::span(bytes).first(requestSize()));
  if (count < 0 && count != -EAGAIN) sendingError_ = static_cast<int>(-count);
}

// --- Sending

void Connection::submit(Request& request) {
  const std::uint8_t slot = freeSlots_.back();
  freeSlots_.pop_back();
  request.cookie_ = nextNumber_++ << slotBits | slot;
  request.compressed_.clear();
  request.unsent_ = wireSize(request);
  request.answer_.reset();
  request.error_ = Nbd::Error::none;
  if (request.command == Nbd::Command::read) request.reading_.emplace(wireRequest(request));
  if (request.extents != nullptr) request.extents->clear();
  inSlot_[slot].request = &request;
  Nbd::Request wire = wireRequest(request);
  wire.flags |= Nbd::plainFlags(request.command, agreement_.headers);
  encode(wire, std::span(inSlot_[slot].header).first<Nbd::extendedRequestSize>());
  ++inFlight_;
  load_ += loadOf(request);
  outgoing_.push_back(&request);
  work_.notify();
}

Nbd::Request Connection::wireRequest(const Request& request) {
  return {.flags = request.flags,
          .type = request.command,
          .cookie = request.cookie_,
          .offset = request.offset,
          .length = request.length};
}

void Connection::encode(const Nbd::Request& request,
                        std::span<std::byte, Nbd::extendedRequestSize> bytes) const {
  if (agreement_.headers == Nbd::HeaderStyle::extended) {
    Nbd::encodeExtendedRequest(bytes, request);
  } else {
    Nbd::encodeRequest(bytes.first<Nbd::requestSize>(), request);
  }
}

Io::Task<void> Connection::sendAll() {
  std::array<iovec, 2 * Limits::importSendBatch> pieces;
  while (!over_) {
    if (outgoing_.empty()) {
      Io::Signal::Waiting waiting = work_.wait();
      co_await waiting;
      continue;
    }
    if (compression_) compressNext();
    const ssize_t count = stream_->send(std::span<const iovec>(pieces).first(collect(pieces)));
    if (count > 0) {
      sent(static_cast<std::size_t>(count));
    } else if (count == -EAGAIN) {
      Io::Stream::Waiting writable = stream_->writable();
      co_await writable;
    } else {
      // Whoever receives goes on: the server may have said more. But the kernel tells an error only once.
      sendingError_ = static_cast<int>(-count);
      co_return;
    }
  }
}

Connection::Bytes Connection::wireHeader(const Request& request) const {
  const std::size_t size = requestSize() + (request.compressed_.empty() ? 0 : Nbd::compressedLengthSize);
  return Bytes(inSlot_[request.cookie_ % slots].header).first(size);
}

/// What to send next. Returns the number of pieces.
std::size_t Connection::collect(std::span<iovec> pieces) const {
  std::size_t used = 0;
  // Without compression all are ready.
  const auto ready = compression_ ? static_cast<std::ptrdiff_t>(ready_) : std::ssize(outgoing_);
  for (const Request* const request : std::ranges::subrange(outgoing_.begin(), outgoing_.begin() + ready)) {
    if (used + 2 > pieces.size()) break;
    const std::size_t done = wireSize(*request) - request->unsent_;
    const auto add = [&](Bytes bytes) {
      // The kernel only reads it.
      if (!bytes.empty()) pieces[used++] = {const_cast<std::byte*>(bytes.data()), bytes.size()};
    };
    const Bytes header = wireHeader(*request);
    add(header.subspan(std::min(done, header.size())));
    add(wireData(*request).subspan(done - std::min(done, header.size())));
  }
  return used;
}

void Connection::sent(std::size_t count) {
  while (count > 0) {
    Request& request = *outgoing_.front();
    const std::size_t part = std::min(count, request.unsent_);
    request.unsent_ -= part;
    count -= part;
    if (request.unsent_ > 0) return;
    outgoing_.pop_front();
    if (compression_) --ready_;
    if (request.answer_) complete(request, *request.answer_);
  }
  // Whoever receives may be waiting for a server that has nothing more to say: its end will wake him.
  if (retiring_ && inFlight_ == 0) {
    takeLeave();
    stream_->endSending();
  }
}

// --- Receiving

Io::Task<Connection::Ending> Connection::receiveAll() {
  std::size_t receivedInTurn = 0;
  for (;;) {
    if (!consumeInput()) co_return Ending{Kind::violation, violation_};
    if (retiring_ && inFlight_ == 0) co_return Ending{Kind::retired, "the server is about to end"};
    // The data of a large read go straight to their place; there is nothing before them any more.
    const bool direct = current_ != nullptr && payload_.size() == awaited_ && data_.size() >= directThreshold;
    const std::span<std::byte> room = direct ? data_ : roomForInput();
    const ssize_t count = stream_->receive(room);
    if (stopped_) co_return Ending{Kind::stopped, {}};
    if (count > 0) {
      if (direct) {
        data_ = data_.subspan(static_cast<std::size_t>(count));
      } else {
        end_ += static_cast<std::size_t>(count);
      }
      receivedInTurn += static_cast<std::size_t>(count);
      // Whoever is sent a lot must not keep the others of the loop waiting.
      if (receivedInTurn >= 4 * Limits::importInput) {
        receivedInTurn = 0;
        Io::EndOfTurn turn(stream_->loop());
        co_await turn;
      }
    } else if (count == -EAGAIN) {
      receivedInTurn = 0;
      Io::Stream::Waiting readable = stream_->readable();
      co_await readable;
      if (stopped_) co_return Ending{Kind::stopped, {}};
    } else if (count == 0) {
      if (isSilence(sendingError_)) {
        co_return Ending{Kind::silent, std::generic_category().message(sendingError_)};
      }
      co_return Ending{Kind::closed, "the server closed the connection"};
    } else {
      const auto error = static_cast<int>(-count);
      co_return Ending{isSilence(error) ? Kind::silent : Kind::closed,
                       std::generic_category().message(error)};
    }
  }
}

/// For what cannot go straight to its place.
std::span<std::byte> Connection::roomForInput() {
  const std::span<std::byte> room = std::span(input_).subspan(end_);
  const bool large = load_ >= inFlight_ * largeRequest;
  return large ? room.first(std::min(room.size(), headersAlone)) : room;
}

/// Ends our side, and waits until the server has ended its side: then nothing that we have sent can be
/// carried out any more. False if the server was not heard of again.
Io::Task<bool> Connection::drain() {
  stream_->endSending();
  while (!stopped_) {
    const ssize_t count = stream_->receive(input_);
    if (count == 0) co_return !isSilence(sendingError_);
    if (count == -EAGAIN) {
      Io::Stream::Waiting readable = stream_->readable();
      co_await readable;
    } else if (count < 0) {
      co_return !isSilence(static_cast<int>(-count));
    } else {
      Io::EndOfTurn turn(stream_->loop());
      co_await turn;
    }
  }
  co_return true;
}

/// Takes apart what has arrived, as far as it goes. False: the server broke the protocol.
bool Connection::consumeInput() {
  for (;;) {
    if (current_ == nullptr) {
      const std::size_t before = begin_;
      if (!takeHeader()) return false;
      if (begin_ == before) break;
      continue;
    }
    const std::size_t available = end_ - begin_;
    if (payload_.size() < awaited_) {
      const std::size_t part = std::min(available, awaited_ - payload_.size());
      const auto from = input_.begin() + static_cast<std::ptrdiff_t>(begin_);
      payload_.insert(payload_.end(), from, from + static_cast<std::ptrdiff_t>(part));
      begin_ += part;
      if (payload_.size() < awaited_) break;
      if (!takePayload(payload_)) return false;
      continue;
    }
    const std::size_t part = std::min(available, data_.size());
    std::ranges::copy(std::span(input_).subspan(begin_, part), data_.begin());
    begin_ += part;
    data_ = data_.subspan(part);
    if (!data_.empty()) break;
    if (!endOfData()) return false;
  }
  // What is left is the start of a header, if anything.
  std::copy(input_.begin() + static_cast<std::ptrdiff_t>(begin_),
            input_.begin() + static_cast<std::ptrdiff_t>(end_), input_.begin());
  end_ -= begin_;
  begin_ = 0;
  return true;
}

bool Connection::takeHeader() {
  const Bytes rest = std::span(input_).subspan(begin_, end_ - begin_);
  if (rest.size() < sizeof(std::uint32_t)) return true;
  const auto magic = Nbd::loadBig<std::uint32_t>(rest.first<4>());
  const bool extended = agreement_.headers == Nbd::HeaderStyle::extended;
  const bool isChunk = sendsChunks() && magic == (extended ? Nbd::extendedChunkMagic : Nbd::chunkMagic);
  if (!isChunk && (extended || magic != Nbd::simpleReplyMagic)) return violation("what it sent is no reply");
  const std::size_t size = !isChunk   ? Nbd::simpleReplySize
                           : extended ? Nbd::extendedChunkHeaderSize
                                      : Nbd::chunkHeaderSize;
  if (rest.size() < size) return true;
  begin_ += size;
  payload_.clear();
  awaited_ = 0;
  data_ = {};
  return isChunk ? takeChunk(rest.first(size)) : takeSimpleReply(rest.first(size));
}

Request* Connection::find(std::uint64_t cookie) const {
  Request* const request = inSlot_[cookie % slots].request;
  const bool asked = request != nullptr && request->cookie_ == cookie && !request->answer_ &&
                     request->unsent_ < wireSize(*request);
  return asked ? request : nullptr;
}

bool Connection::takeSimpleReply(Bytes bytes) {
  const auto reply = Nbd::decodeSimpleReply(bytes.first<Nbd::simpleReplySize>());
  Request* const request = find(reply->cookie);
  if (request == nullptr) return violation("it answered a request that was not asked");
  if (reply->error != Nbd::Error::none) return answer(*request, known(reply->error));
  const bool isRead = request->command == Nbd::Command::read;
  if (request->command == Nbd::Command::blockStatus || (isRead && sendsChunks())) {
    return violation("it sent a simple reply where only chunks are allowed");
  }
  if (!isRead) return answer(*request, Nbd::Error::none);
  current_ = request;
  simple_ = true;
  static_cast<void>(request->reading_->takeContent(request->offset, request->length));
  data_ = destinationOf(*request, request->offset, request->length);
  return true;
}

bool Connection::takeChunk(Bytes bytes) {
  const std::uint32_t most = agreement_.remote.maximumPayload;
  const bool extended = agreement_.headers == Nbd::HeaderStyle::extended;
  const auto header = extended
                          ? Nbd::decodeExtendedChunkHeader(bytes.first<Nbd::extendedChunkHeaderSize>(), most)
                          : Nbd::decodeChunkHeader(bytes.first<Nbd::chunkHeaderSize>(), most);
  if (!header) return violation("it sent a chunk that is malformed");
  Request* const request = find(header->cookie);
  if (request == nullptr || (extended && header->requestOffset != request->offset)) {
    return violation("it answered a request that was not asked");
  }
  current_ = request;
  simple_ = false;
  chunk_ = *header;
  return beginChunkPayload(*header, *request);
}

bool Connection::beginChunkPayload(const Nbd::ChunkHeader& header, Request& request) {
  const bool isRead = request.command == Nbd::Command::read;
  switch (header.type) {
    case Nbd::ReplyChunk::none:
      return endOfChunk();
    case Nbd::ReplyChunk::offsetData:
      if (!isRead) return violation("it sent data that nobody asked for");
      awaited_ = Nbd::offsetSize;
      return true;
    case Nbd::ReplyChunk::offsetHole:
      if (!isRead) return violation("it sent data that nobody asked for");
      break;
    case Nbd::ReplyChunk::compressedData:
      // Compressed data are shorter than what they stand for.
      if (!isRead || !compression_ || header.length - Nbd::compressedFixedSize >= request.length) {
        return violation("it sent compressed data that nobody asked for");
      }
      payload_.resize(header.length);
      data_ = payload_;
      break;
    case Nbd::ReplyChunk::blockStatus:
    case Nbd::ReplyChunk::extendedBlockStatus:
      if (request.command != Nbd::Command::blockStatus || !request.extents->empty()) {
        return violation("it sent a block status that nobody asked for");
      }
      break;
    default:
      break;
  }
  awaited_ = header.length;
  return true;
}

bool Connection::takePayload(Bytes payload) {
  switch (chunk_.type) {
    case Nbd::ReplyChunk::offsetData:
      return takeDataOffset(payload);
    case Nbd::ReplyChunk::offsetHole:
      return takeHole(payload) && endOfChunk();
    case Nbd::ReplyChunk::blockStatus:
    case Nbd::ReplyChunk::extendedBlockStatus:
      return takeBlockStatus(payload) && endOfChunk();
    default:
      return takeError(payload) && endOfChunk();
  }
}

/// Where data of a READ belong that are known to be part of it.
std::span<std::byte> Connection::destinationOf(Request& request, std::uint64_t offset, std::size_t length) {
  if (request.destination.empty()) request.takeMemory();
  Nbd::require(request.destination.size() == request.length);
  return request.destination.subspan(offset - request.offset, length);
}

bool Connection::takeDataOffset(Bytes payload) {
  const auto offset = Nbd::loadBig<std::uint64_t>(payload.first<Nbd::offsetSize>());
  const std::size_t length = chunk_.length - payload.size();
  if (!current_->reading_->takeContent(offset, length))
    return violation("it sent data that were not asked for");
  data_ = destinationOf(*current_, offset, length);
  return true;
}

bool Connection::takeHole(Bytes payload) {
  const auto hole = Nbd::decodeOffsetHole(payload);
  if (!hole || !current_->reading_->takeContent(hole->offset, hole->length)) {
    return violation("it sent data that were not asked for");
  }
  std::ranges::fill(destinationOf(*current_, hole->offset, hole->length), std::byte{});
  return true;
}

bool Connection::takeBlockStatus(Bytes payload) {
  const auto context = Nbd::decodeBlockStatus(chunk_.type, payload, *current_->extents);
  if (!context) return violation("it sent a block status that is malformed");
  if (context != agreement_.allocationContext)
    return violation("it sent a block status of an unknown context");
  if (!Nbd::isAnswer(wireRequest(*current_), *current_->extents)) {
    return violation("it sent a block status that is no answer");
  }
  return true;
}

bool Connection::takeError(Bytes payload) {
  const auto error = Nbd::decodeError(chunk_.type, payload);
  if (!error) return violation("it sent an error that is malformed");
  // The first one counts.
  if (current_->error_ == Nbd::Error::none) current_->error_ = known(error->error);
  return true;
}

/// All data of a chunk, or of a simple reply, are there.
bool Connection::endOfData() {
  const bool isCompressed = !simple_ && chunk_.type == Nbd::ReplyChunk::compressedData;
  return (!isCompressed || takeCompressed(payload_)) && endOfChunk();
}

/// All of a chunk, or of a simple reply, is there.
bool Connection::endOfChunk() {
  Request& request = *std::exchange(current_, nullptr);
  data_ = {};
  return (!simple_ && !chunk_.isDone()) || finish(request);
}

bool Connection::finish(Request& request) {
  if (request.error_ != Nbd::Error::none) return answer(request, request.error_);
  if (request.command == Nbd::Command::read && !request.reading_->isComplete()) {
    return violation("it left out a part of what was to be read");
  }
  if (request.command == Nbd::Command::blockStatus && request.extents->empty()) {
    return violation("it left out the block status");
  }
  return answer(request, Nbd::Error::none);
}

bool Connection::answer(Request& request, Nbd::Error error) {
  if (error == Nbd::Error::none) provedGood_ = true;
  if (request.unsent_ > 0) {
    if (error == Nbd::Error::none) return violation("it acknowledged data that it had not been sent");
    request.answer_ = error;  // the rest has to be sent all the same: see sent()
    return true;
  }
  complete(request, error);
  return true;
}

void Connection::complete(Request& request, Nbd::Error error) {
  const auto slot = static_cast<std::uint8_t>(request.cookie_ % slots);
  inSlot_[slot].request = nullptr;
  freeSlots_.push_back(slot);
  --inFlight_;
  load_ -= loadOf(request);
  request.compressed_ = {};  // the request may be kept for long
  if (error == Nbd::Error::shutdown) {
    // Not carried out, and whoever asked is not to be told: the next server will do it.
    refused_.push_back(&request);
    return retire();
  }
  request.done(error);
  events_.answered();
}

/// The server wants to end: nothing new for it, and an orderly end when it has answered all.
void Connection::retire() {
  accepting_ = false;
  retiring_ = true;
}

bool Connection::violation(std::string_view what) {
  violation_ = fmt::format("the server broke the protocol: {}", what);
  return false;
}

std::vector<Request*> Connection::takeUnanswered() {
  std::vector<Request*> requests = std::move(refused_);
  for (Slot& slot : inSlot_) {
    if (slot.request != nullptr) requests.push_back(std::exchange(slot.request, nullptr));
  }
  std::ranges::sort(requests, {}, [](const Request* request) { return request->cookie_; });
  outgoing_.clear();
  ready_ = 0;
  inFlight_ = 0;
  load_ = 0;
  return requests;
}

}  // namespace Nbdd::Remote
