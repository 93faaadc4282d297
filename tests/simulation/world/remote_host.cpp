#include "tests/simulation/world/remote_host.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <utility>

#include "nbd/bytes.h"

namespace Simulation {

namespace {

namespace Flag = Nbd::TransmissionFlag;

/// When the service's kernel gives up a connection of which it hears nothing.
constexpr Nanoseconds silence = 30'000'000'000;

}  // namespace

RemoteHost::RemoteHost(World& world, Ledger& ledger, Habits habits)
    : world_(world), ledger_(ledger), habits_(habits) {
  view_.name = "disk";
  view_.size = ledger.blocks() * blockSize;
  view_.transmissionFlags = Flag::hasFlags | Flag::sendFlush | Flag::sendFua;
  if (habits.severalConnections) {
    view_.transmissionFlags |= Flag::canMultiConn;
  }
}

std::optional<Nbd::ExportView> RemoteHost::find(std::string_view name) const {
  return name == view_.name ? std::optional(view_) : std::nullopt;
}

std::shared_ptr<const std::vector<Nbd::ListedExport>> RemoteHost::list() const {
  return std::make_shared<const std::vector<Nbd::ListedExport>>();
}

std::shared_ptr<Socket> RemoteHost::open() {
  Random& random = world_.random();
  auto socket = std::make_shared<Socket>(world_, random.pick({200U, 4096U, 65'536U}),
                                         random.pick({100U, 3000U, 20'000U}));
  sessions_.emplace_back().socket = socket;
  return socket;
}

/// Decided at the next work().
void RemoteHost::connect(Socket& /*socket*/) {}

RemoteHost::Session& RemoteHost::at(std::size_t index) {
  return *std::next(sessions_.begin(), static_cast<std::ptrdiff_t>(index));
}

Socket& RemoteHost::socket(std::size_t index) { return *at(index).socket; }

bool RemoteHost::canWork(std::size_t index) const {
  const Session& session = *std::next(sessions_.begin(), static_cast<std::ptrdiff_t>(index));
  const Socket& socket = *session.socket;
  return !frozen_ && !session.over &&
         (socket.connecting() || socket.readable() > 0 ||
          (session.pending.empty() && (socket.closedByServer() || socket.atEnd())) || hasDue(session));
}

bool RemoteHost::hasDue(const Session& session) const {
  return std::ranges::any_of(session.pending, [&](const Pending& one) { return one.due <= world_.now(); });
}

/// When a request will be carried out, at the earliest.
Nanoseconds RemoteHost::someTime() {
  const bool slow = world_.random().chance(habits_.slow);
  return world_.now() + (slow ? static_cast<Nanoseconds>(world_.random().below(thawing)) : 0);
}

void RemoteHost::work(std::size_t index) {
  Session& session = at(index);
  Socket& socket = *session.socket;
  if (socket.connecting()) {
    return decide(session);
  }
  if (hasDue(session) && (socket.readable() == 0 || world_.random().chance(500))) {
    return carryOut(session);
  }
  if (socket.readable() > 0) {
    return take(session);
  }
  if (session.pending.empty()) {
    end(session);
  }
}

/// Whether a connection comes about.
void RemoteHost::decide(Session& session) {
  if (!running_ || session.socket->closedByServer()) {
    session.socket->endConnecting(ECONNREFUSED);
    return end(session);
  }
  session.socket->endConnecting(0);
  session.handshake.emplace(*this, habits_.policy);
  std::vector<std::byte> greeting;
  session.handshake->greet(greeting);
  session.socket->push(greeting);
}

/// The host receives some bytes, and the server understands what it can of them.
void RemoteHost::take(Session& session) {
  const std::size_t count = world_.random().between(1, session.socket->readable());
  const std::vector<std::byte> bytes = session.socket->pull(count);
  session.input.insert(session.input.end(), bytes.begin(), bytes.end());
  if (session.handshake && !session.transmission) {
    std::vector<std::byte> output;
    for (;;) {
      const auto progress = session.handshake->advance(session.input, output);
      session.input.erase(session.input.begin(),
                          session.input.begin() + static_cast<std::ptrdiff_t>(progress.consumed));
      const bool stuck = progress.consumed == 0 && output.empty();
      session.socket->push(std::exchange(output, {}));
      if (progress.state == Nbd::ServerHandshake::State::transmission) {
        session.transmission = true;
        break;
      }
      if (progress.state != Nbd::ServerHandshake::State::negotiating) {
        return end(session);
      }
      if (stuck || progress.consumed == 0) {
        return;
      }
    }
  }
  parse(session);
}

void RemoteHost::parse(Session& session) {
  if (!session.transmission) {
    return;
  }
  const Nbd::HeaderStyle headers = session.handshake->agreement().headers;
  const std::size_t size = Nbd::requestSizeOf(headers);
  while (session.input.size() >= size) {
    const std::span<const std::byte> bytes(session.input);
    const auto request = headers == Nbd::HeaderStyle::extended
                             ? Nbd::decodeExtendedRequest(bytes.first<Nbd::extendedRequestSize>())
                             : Nbd::decodeRequest(bytes.first<Nbd::requestSize>());
    if (!request || (request->type != Nbd::Command::disconnect &&
                     Nbd::validate(*request, session.handshake->agreement().limits()))) {
      return world_.fail("the import asks for something that cannot be");
    }
    const std::size_t payload = Nbd::payloadLength(*request, headers);
    if (session.input.size() < size + payload) {
      return;
    }
    if (request->type != Nbd::Command::disconnect) {
      const auto data = bytes.subspan(size, payload);
      session.pending.push_back(
          {.request = *request, .payload = {data.begin(), data.end()}, .due = someTime()});
    }
    session.input.erase(session.input.begin(),
                        session.input.begin() + static_cast<std::ptrdiff_t>(size + payload));
  }
}

/// Any of the requests that wait. An orphan's may be dropped instead: its server may know of the end.
void RemoteHost::carryOut(Session& session) {
  Random& random = world_.random();
  std::size_t chosen = random.below(session.pending.size());
  while (session.pending[chosen].due > world_.now()) {
    chosen = (chosen + 1) % session.pending.size();
  }
  const Pending pending = std::move(session.pending[chosen]);
  session.pending.erase(session.pending.begin() + static_cast<std::ptrdiff_t>(chosen));
  if (session.orphaned) {
    if (random.chance(500)) {
      perform(pending);
    }
    return;
  }
  const Nbd::ReplyEncoder replies(session.handshake->agreement().headers);
  std::array<std::byte, Nbd::ReplyEncoder::maxVerdictSize> bytes{};
  if (random.chance(habits_.refusals)) {
    const std::size_t size = replies.failure(bytes, pending.request, Nbd::Error::shutdown);
    return session.socket->push(std::span(bytes).first(size));
  }
  if (random.chance(habits_.errors)) {
    const std::size_t size = replies.failure(bytes, pending.request, Nbd::Error::io);
    return session.socket->push(std::span(bytes).first(size));
  }
  if (random.chance(habits_.lies)) {
    world_.note("the server talks nonsense");
    // The request that it is about is still to be done: by then the import must not have asked it again.
    session.pending.push_back({.request = pending.request, .payload = pending.payload, .due = someTime()});
    std::ranges::fill(std::span(bytes).first(16), std::byte{0x77});
    return session.socket->push(std::span(bytes).first(16));
  }
  perform(pending);
  reply(session, pending);
}

void RemoteHost::perform(const Pending& pending) {
  const Nbd::Request& request = pending.request;
  if (request.type == Nbd::Command::flush) {
    return ledger_.flushes();
  }
  if (request.type != Nbd::Command::write) {
    return;
  }
  for (std::size_t index = 0; index < pending.payload.size() / blockSize; ++index) {
    Ledger::Number number = 0;
    std::memcpy(&number, pending.payload.data() + index * blockSize, sizeof number);
    ledger_.writes(number, request.offset / blockSize + index);
  }
}

void RemoteHost::reply(Session& session, const Pending& pending) {
  const Nbd::Request& request = pending.request;
  const Nbd::ReplyEncoder replies(session.handshake->agreement().headers);
  std::array<std::byte, Nbd::ReplyEncoder::maxVerdictSize> bytes{};
  if (request.type != Nbd::Command::read) {
    const std::size_t size = replies.success(bytes, request);
    return session.socket->push(std::span(bytes).first(size));
  }
  // In one piece or two.
  const std::size_t blocks = request.length / blockSize;
  const std::size_t cut = replies.hasChunks() ? world_.random().between(1, blocks) : blocks;
  for (const auto& [first, count] : {std::pair{std::size_t{0}, cut}, std::pair{cut, blocks - cut}}) {
    if (count == 0) {
      continue;
    }
    const std::uint64_t offset = request.offset + first * blockSize;
    const bool last = first + count == blocks;
    std::vector<std::byte> piece(replies.dataHeaderSize() + count * blockSize);
    replies.dataHeader(piece, request, last ? Nbd::ReplyFlag::done : std::uint16_t{0}, offset,
                       count * blockSize);
    for (std::size_t index = 0; index < count; ++index) {
      const Ledger::Number number = ledger_.content(offset / blockSize + index);
      for (std::size_t at = 0; at < blockSize; at += sizeof number) {
        std::memcpy(piece.data() + replies.dataHeaderSize() + index * blockSize + at, &number, sizeof number);
      }
    }
    session.socket->push(piece);
  }
}

/// The server closes a connection; what it had not carried out it never will.
void RemoteHost::end(Session& session) {
  session.pending.clear();
  session.input.clear();
  session.socket->abandon();
  session.over = true;
}

// --- Misfortunes

void RemoteHost::kill() {
  world_.note("the server is killed");
  running_ = false;
  for (Session& session : sessions_) {
    if (session.socket->connecting() || session.over) {
      continue;
    }
    // Some of it may have been done before.
    while (!session.pending.empty() && world_.random().chance(500)) {
      perform(session.pending.back());
      session.pending.pop_back();
    }
    end(session);
    if (world_.random().chance(300)) {
      session.socket->reset();
    }
  }
}

void RemoteHost::start() {
  world_.note("the server is started");
  running_ = true;
}

void RemoteHost::freeze() {
  world_.note("the host stops");
  frozen_ = true;
  frozenAt_ = world_.now();
  // Of what is on its way, some has arrived.
  for (Session& session : sessions_) {
    if (!session.over && !session.socket->connecting() && session.socket->readable() > 0) {
      take(session);
    }
  }
}

void RemoteHost::thaw() {
  world_.note("the host goes on");
  frozen_ = false;
  for (Session& session : sessions_) {
    if (session.orphaned) {
      session.until = world_.now() + thawing;
      for (Pending& pending : session.pending) {
        pending.due = std::max(pending.due, someTime());
      }
    }
  }
}

void RemoteHost::cut(std::size_t index) {
  Session& session = at(index);
  if (session.over || session.orphaned || session.socket->connecting()) {
    return;
  }
  world_.note("the server ends a connection");
  end(session);
}

std::optional<Nanoseconds> RemoteHost::deadline() const {
  std::optional<Nanoseconds> next;
  const auto consider = [&](Nanoseconds moment) { next = std::min(next.value_or(moment), moment); };
  for (const Session& session : sessions_) {
    const bool lives = !session.over && !session.socket->connecting();
    for (const Pending& pending : session.pending) {
      if (lives && !frozen_ && pending.due > world_.now()) {
        consider(pending.due);
      }
    }
    if (lives && session.orphaned && !frozen_) {
      consider(session.until);
    } else if (lives && frozen_ && !session.orphaned) {
      consider(frozenAt_ + silence);
    }
  }
  return next;
}

void RemoteHost::pass() {
  for (Session& session : sessions_) {
    const bool lives = !session.over && !session.socket->connecting();
    if (lives && frozen_ && !session.orphaned && world_.now() >= frozenAt_ + silence) {
      world_.note("the service's kernel gives a connection up");
      session.socket->timeOut();
      session.orphaned = true;
    } else if (lives && !frozen_ && session.orphaned && world_.now() >= session.until) {
      world_.note("what an old connection had brought is over");
      end(session);
    }
  }
  std::erase_if(sessions_, [](const Session& one) { return one.over && one.socket->closedByServer(); });
}

}  // namespace Simulation
