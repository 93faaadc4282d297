#include "tests/simulation/world/client.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <utility>

#include "nbd/request.h"
#include "nbd/validation.h"
#include "tests/support/validation_model.h"

namespace Simulation {

namespace {

using Nbd::Command;
using Nbd::Error;

std::vector<std::byte> encode(const Nbd::Request& request, Nbd::HeaderStyle headers) {
  std::vector<std::byte> bytes(Nbd::requestSizeOf(headers));
  if (headers == Nbd::HeaderStyle::extended) {
    Nbd::encodeExtendedRequest(std::span(bytes).first<Nbd::extendedRequestSize>(), request);
  } else {
    Nbd::encodeRequest(std::span(bytes).first<Nbd::requestSize>(), request);
  }
  return bytes;
}

}  // namespace

void Client::fail(const std::string& message) const {
  world_.fail(fmt::format("connection {}: {}", connection_->number, message));
}

std::string Client::state() const {
  if (phase_ == Phase::idle) {
    return "idle";
  }
  return fmt::format("connection {} {}, {} requests unanswered{}{}", connection_->number,
                     phase_ == Phase::handshake      ? "in the handshake"
                     : phase_ == Phase::transmission ? "in transmission"
                                                     : "leaving",
                     asked_.size(), stalled() ? ", stalled" : "",
                     connection_->socket->closedByServer() ? ", closed by the server" : "");
}

bool Client::canSend() const {
  return phase_ == Phase::transmission && !stalled() && asked_.size() < habits_.depth;
}

bool Client::canReceive() const {
  if (phase_ == Phase::idle || stalled()) {
    return false;
  }
  const Socket& socket = *connection_->socket;
  return socket.readable() > 0 || socket.atEnd() || socket.wasReset();
}

void Client::connect() {
  --lives_;
  connection_ = connect_();
  phase_ = Phase::handshake;
  requestsLeft_ = habits_.requests;
  handshake_.emplace(Nbd::ClientHandshake::Wish{
      .exportName = "disk", .structuredReplies = world_.random().chance(600), .allocationContext = true});
}

void Client::stall() {
  stalledUntil_ =
      world_.now() +
      static_cast<Nanoseconds>(world_.random().skewed(static_cast<std::uint64_t>(habits_.longestStall)));
  world_.note("connection {} stalls until {:.3f} ms", connection_->number,
              static_cast<double>(stalledUntil_) / 1e6 - 1e6);
}

// --- Requests

void Client::send() {
  if (requestsLeft_ == 0) {
    leave();
    return;
  }
  --requestsLeft_;
  Pending pending;
  pending.connection = connection_;
  pending.wire = compose();
  Nbd::ExportLimits limits = agreement().limits();
  // This server takes more than what clients rely on.
  limits.maximumPayload = Nbd::maxPayload;
  limits.maximumUnfragmented = Nbd::maxPayload;
  pending.refusal = ValidationModel::verdict(pending.wire, limits);
  Nbd::Request sent = pending.wire;
  pending.payload = composePayload(Nbd::payloadLength(sent, agreement().headers));
  if (sent.type == Command::blockStatus && !pending.refusal && world_.random().chance(300)) {
    narrowDown(sent, pending.payload);
  }
  std::vector<std::byte> bytes = encode(sent, agreement().headers);
  bytes.insert(bytes.end(), pending.payload.begin(), pending.payload.end());
  pending.streamEnd = connection_->socket->pushed() + bytes.size();
  const std::uint64_t cookie = sent.cookie;
  asked_.emplace(cookie, Asked{.request = model_.sending(std::move(pending))});
  connection_->socket->push(bytes);
}

/// Asks for the same status by a payload that names the context, where that was agreed on.
void Client::narrowDown(Nbd::Request& request, std::vector<std::byte>& payload) const {
  if ((agreement().remote.transmissionFlags & Nbd::TransmissionFlag::blockStatusPayload) == 0 ||
      agreement().headers != Nbd::HeaderStyle::extended) {
    return;
  }
  const std::array<std::uint32_t, 1> contexts{*agreement().allocationContext};
  payload.resize(Nbd::statusFilterSize(contexts.size()));
  Nbd::encodeStatusFilter(payload, request.length, contexts);
  request.length = payload.size();
  request.flags |= Nbd::CommandFlag::payloadLength;
}

Nbd::Request Client::compose() {
  Random& random = world_.random();
  Nbd::Request request;
  request.cookie = random.next();
  request.type = random.pick({Command::read, Command::read, Command::read, Command::write, Command::write,
                              Command::write, Command::write, Command::flush, Command::trim,
                              Command::writeZeroes, Command::blockStatus, Command::cache});
  if (request.type == Command::blockStatus && !agreement().allocationContext) {
    request.type = Command::read;
  }
  const std::uint64_t size = *agreement().remote.size;
  if (request.type != Command::flush) {
    const std::uint64_t most = random.chance(300) ? habits_.largest : random.skewed(habits_.largest);
    std::uint64_t length =
        random.chance(20) && request.type != Command::blockStatus ? 0 : random.between(1, most);
    const std::uint64_t place = random.chance(800) ? std::min(habits_.hotBytes, size) : size;
    std::uint64_t offset = random.below(place);
    if (random.chance(600)) {
      offset = offset / 512 * 512;
      length = (length + 511) / 512 * 512;
    }
    request.offset = offset;
    request.length = std::min(length, size - offset);
  }
  request.flags = Nbd::plainFlags(request.type, agreement().headers);
  const auto maybe = [&](std::uint16_t flag, unsigned int perMille) {
    request.flags = static_cast<std::uint16_t>(request.flags | (random.chance(perMille) ? flag : 0U));
  };
  maybe(Nbd::CommandFlag::fua, request.type == Command::read ? 20 : habits_.fua);
  if (request.type == Command::writeZeroes) {
    maybe(Nbd::CommandFlag::noHole, 300);
    maybe(Nbd::CommandFlag::fastZero, 200);
  }
  if (request.type == Command::read && structured()) {
    maybe(Nbd::CommandFlag::df, 200);
  }
  if (request.type == Command::blockStatus) {
    maybe(Nbd::CommandFlag::reqOne, 200);
  }
  if (random.chance(habits_.invalid)) {
    makeInvalid(request);
  }
  return request;
}

/// Most often something that must be refused; what is right all the same is answered like any other.
void Client::makeInvalid(Nbd::Request& request) {
  Random& random = world_.random();
  const std::uint64_t size = *agreement().remote.size;
  switch (random.below(5)) {
    case 0:
      request.offset = size - random.below(std::min<std::uint64_t>(size, request.length + 1ULL));
      break;
    case 1:
      request.offset = random.next();
      break;
    case 2:
      request.flags = static_cast<std::uint16_t>(random.next());
      break;
    case 3:
      if (request.type != Command::write) {
        request.type = static_cast<Command>(random.between(8, 0xffff));
      }
      break;
    default:
      if (request.type == Command::read) {
        request.length = random.between(0, 0xffff'ffff);
      }
      break;
  }
}

std::vector<std::byte> Client::composePayload(std::size_t length) {
  std::vector<std::byte> payload(length);
  Random& random = world_.random();
  if (random.chance(habits_.zeroes)) {
    return payload;
  }
  Random noise(random.next());
  std::size_t index = 0;
  for (; index + 8 <= length; index += 8) {
    const std::uint64_t word = noise.next();
    std::copy_n(reinterpret_cast<const std::byte*>(&word), 8,
                payload.begin() + static_cast<std::ptrdiff_t>(index));
  }
  for (; index < length; ++index) {
    payload[index] = static_cast<std::byte>(noise.next());
  }
  return payload;
}

// --- Ends

void Client::leave() {
  phase_ = Phase::leaving;
  connection_->ending = true;
  if (world_.random().chance(600)) {
    world_.note("connection {} disconnects", connection_->number);
    connection_->socket->push(
        encode({.type = Command::disconnect, .cookie = world_.random().next()}, agreement().headers));
  } else {
    world_.note("connection {} ends its side", connection_->number);
    connection_->socket->endSending();
  }
}

void Client::cut() {
  Socket& socket = *connection_->socket;
  connection_->ending = true;
  const std::size_t arriving = socket.underWay() == 0 ? 0 : world_.random().below(socket.underWay() + 1);
  if (world_.random().chance(300)) {
    world_.note("connection {} is reset", connection_->number);
    socket.reset();
  } else {
    world_.note("connection {} is cut behind {} of {} bytes under way", connection_->number, arriving,
                socket.underWay());
    socket.cutBehind(arriving);
    socket.abandon();
  }
  over();
}

void Client::giveUp() {
  lives_ = 0;
  if (phase_ != Phase::idle) {
    connection_->ending = true;
    connection_->socket->reset();
    over();
  }
}

/// The server has ended the connection, or reset it.
void Client::ended() {
  Socket& socket = *connection_->socket;
  world_.note("connection {} ends: {} requests unanswered{}", connection_->number, asked_.size(),
              socket.wasReset() ? ", reset" : "");
  const bool excused =
      connection_->stalled > patience || socket.brokenOff() || model_.hasBeenOvertaken(*connection_);
  if (!connection_->ending && !excused) {
    fail("ended by the server for no reason");
  }
  // A server that ends a connection in order answers what it has carried out.
  for (const auto& [cookie, asked] : asked_) {
    if (!excused && !socket.wasReset() && model_.wasApplied(*asked.request)) {
      fail(fmt::format("ended although this was carried out and not answered: {}", describe(*asked.request)));
    }
  }
  // And one whose client has said good-bye in order answers everything that was asked before.
  if (phase_ == Phase::leaving && !connection_->endedByServer && !excused && !asked_.empty()) {
    fail(fmt::format("ended although this was not answered: {}", describe(*asked_.begin()->second.request)));
  }
  socket.abandon();
  over();
}

void Client::over() {
  connection_->over = true;
  phase_ = Phase::idle;
  stalledUntil_ = 0;
  asked_.clear();
  received_.clear();
}

// --- Replies

void Client::receive() {
  Socket& socket = *connection_->socket;
  if (socket.readable() == 0) {
    if (!received_.empty() && connection_->stalled < patience && !socket.brokenOff() && !socket.wasReset()) {
      fail("ended in the middle of a reply");
    }
    ended();
    return;
  }
  const std::size_t most = socket.readable();
  const std::vector<std::byte> bytes =
      socket.pull(world_.random().chance(500) ? most : world_.random().between(1, most));
  received_.insert(received_.end(), bytes.begin(), bytes.end());
  if (phase_ == Phase::handshake) {
    shakeHands();
  }
  if (phase_ == Phase::transmission || phase_ == Phase::leaving) {
    parseReplies();
  }
}

void Client::shakeHands() {
  using State = Nbd::ClientHandshake::State;
  std::vector<std::byte> output;
  for (;;) {
    const Nbd::ClientHandshake::Progress progress = handshake_->advance(received_, output);
    received_.erase(received_.begin(), received_.begin() + static_cast<std::ptrdiff_t>(progress.consumed));
    connection_->socket->push(output);
    const bool answered = !output.empty();
    output.clear();
    if (progress.state == State::transmission) {
      phase_ = Phase::transmission;
      // The export's description is the number of its generation.
      const std::string& text = agreement().remote.description;
      std::from_chars(text.data(), text.data() + text.size(), connection_->generation);
      world_.note("connection {} has agreed on generation {}, {}", connection_->number, text,
                  agreement().headers == Nbd::HeaderStyle::extended ? "extended headers"
                  : structured()                                    ? "structured replies"
                                                                    : "simple replies");
      return;
    }
    if (progress.state != State::negotiating) {
      if (!connection_->exportMayBeGone) {
        fail(fmt::format("the handshake fails: {}", handshake_->failure().message));
      }
      connection_->ending = true;
      connection_->socket->abandon();
      over();
      return;
    }
    if (progress.consumed == 0 && !answered) {
      return;
    }
  }
}

void Client::parseReplies() {
  std::size_t used = 0;
  while (!world_.failure()) {
    const std::size_t taken = parseReply(std::span(received_).subspan(used));
    if (taken == 0) {
      break;
    }
    used += taken;
  }
  received_.erase(received_.begin(), received_.begin() + static_cast<std::ptrdiff_t>(used));
}

/// Takes one reply or chunk; 0 if it has not arrived whole, or is none.
std::size_t Client::parseReply(std::span<const std::byte> bytes) {
  if (bytes.size() < 4) {
    return 0;
  }
  switch (Nbd::loadBig<std::uint32_t>(bytes.first<4>())) {
    case Nbd::simpleReplyMagic:
      return parseSimple(bytes);
    case Nbd::chunkMagic:
    case Nbd::extendedChunkMagic:
      return parseChunk(bytes);
    default:
      fail("sent something that is no reply");
      return 0;
  }
}

Client::Reply Client::find(std::uint64_t cookie) {
  const Reply found = asked_.find(cookie);
  if (found == asked_.end()) {
    fail(fmt::format("got a reply with cookie {:x}, which nothing waits for", cookie));
  }
  return found;
}

std::size_t Client::parseSimple(std::span<const std::byte> bytes) {
  if (bytes.size() < Nbd::simpleReplySize) {
    return 0;
  }
  const Nbd::SimpleReply reply = *Nbd::decodeSimpleReply(bytes.first<Nbd::simpleReplySize>());
  const Reply found = find(reply.cookie);
  if (found == asked_.end()) {
    return 0;
  }
  Asked& asked = found->second;
  const Nbd::Request& wire = asked.request->wire;
  const bool chunksOnly = wire.type == Command::read || wire.type == Command::blockStatus;
  if (agreement().headers == Nbd::HeaderStyle::extended || (structured() && chunksOnly)) {
    fail("got a simple reply where there must be chunks");
    return 0;
  }
  std::size_t size = Nbd::simpleReplySize;
  if (wire.type == Command::read && reply.error == Error::none) {
    size += wire.length;
    if (bytes.size() < size) {
      return 0;
    }
    if (wire.length > 0) {
      const auto data = bytes.subspan(Nbd::simpleReplySize, wire.length);
      asked.data.push_back(
          {.offset = wire.offset, .length = wire.length, .data = {data.begin(), data.end()}});
    }
  }
  asked.error = reply.error;
  finish(found);
  return size;
}

/// The header of a chunk in the style that was agreed on, or nothing if it is none.
std::optional<Nbd::ChunkHeader> Client::decodeHeader(std::span<const std::byte> bytes) const {
  switch (agreement().headers) {
    case Nbd::HeaderStyle::simple:
      return std::nullopt;
    case Nbd::HeaderStyle::structured:
      return Nbd::decodeChunkHeader(bytes.first<Nbd::chunkHeaderSize>());
    case Nbd::HeaderStyle::extended:
      return Nbd::decodeExtendedChunkHeader(bytes.first<Nbd::extendedChunkHeaderSize>());
  }
  return std::nullopt;
}

std::size_t Client::parseChunk(std::span<const std::byte> bytes) {
  const std::size_t headerSize =
      agreement().headers == Nbd::HeaderStyle::extended ? Nbd::extendedChunkHeaderSize : Nbd::chunkHeaderSize;
  if (bytes.size() < headerSize) {
    return 0;
  }
  const std::optional<Nbd::ChunkHeader> header = decodeHeader(bytes);
  if (!header) {
    fail("got a chunk that is none, or that was not agreed on");
    return 0;
  }
  const std::size_t size = headerSize + header->length;
  const Reply found = find(header->cookie);
  if (found == asked_.end() || bytes.size() < size) {
    return 0;
  }
  if (!takeChunk(*header, bytes.subspan(headerSize, header->length), found->second)) {
    fail("got a chunk that does not fit");
    return 0;
  }
  if (header->isDone()) {
    finish(found);
  }
  return size;
}

bool Client::takeChunk(const Nbd::ChunkHeader& header, std::span<const std::byte> payload, Asked& asked) {
  const Command command = asked.request->wire.type;
  if (agreement().headers == Nbd::HeaderStyle::extended &&
      header.requestOffset != asked.request->wire.offset) {
    return false;
  }
  if (header.isError()) {
    const std::optional<Nbd::ErrorChunk> error = Nbd::decodeError(header.type, payload);
    if (!error || asked.error != Error::none) {
      return false;
    }
    asked.error = error->error;
    return true;
  }
  switch (header.type) {
    case Nbd::ReplyChunk::none:
      return header.isDone();
    case Nbd::ReplyChunk::offsetData: {
      const auto data = payload.subspan<8>();
      asked.data.push_back({.offset = Nbd::loadBig<std::uint64_t>(payload.first<8>()),
                            .length = data.size(),
                            .data = {data.begin(), data.end()}});
      return command == Command::read;
    }
    case Nbd::ReplyChunk::offsetHole: {
      const std::optional<Nbd::Hole> hole = Nbd::decodeOffsetHole(payload);
      if (hole) {
        asked.data.push_back({.offset = hole->offset, .length = hole->length, .data = {}});
      }
      return hole && command == Command::read;
    }
    case Nbd::ReplyChunk::blockStatus:
    case Nbd::ReplyChunk::extendedBlockStatus:
      return command == Command::blockStatus && asked.extents.empty() &&
             Nbd::decodeBlockStatus(header.type, payload, asked.extents) == agreement().allocationContext;
    default:
      return false;
  }
}

void Client::finish(Reply reply) {
  const Asked asked = std::move(reply->second);
  asked_.erase(reply);
  model_.answered(asked.request, asked.error, asked.data, asked.extents);
}

}  // namespace Simulation
