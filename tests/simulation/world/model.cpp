#include "tests/simulation/world/model.h"

#include <algorithm>
#include <cerrno>
#include <utility>

namespace Simulation {

namespace {

using Nbd::Command;
using Nbd::Error;

bool has(const Pending& request, std::uint16_t flag) { return (request.wire.flags & flag) != 0; }

bool looks(const Pending& request) {
  return request.wire.type == Command::read || request.wire.type == Command::blockStatus;
}

bool modifies(Command command) {
  return command == Command::write || command == Command::trim || command == Command::writeZeroes;
}

/// Whether its success says something about stable storage.
bool syncs(const Pending& request) {
  return request.wire.type == Command::flush ||
         (modifies(request.wire.type) && has(request, Nbd::CommandFlag::fua));
}

bool isAllZero(std::span<const std::byte> bytes) {
  return std::ranges::all_of(bytes, [](std::byte byte) { return byte == std::byte{0}; });
}

bool isInside(const Pending& request, std::uint64_t offset, std::uint64_t length) {
  return offset >= request.wire.offset && offset + length <= request.wire.offset + request.wire.length;
}

bool overlaps(const Pending& request, std::uint64_t offset, std::uint64_t length) {
  return offset < request.wire.offset + request.wire.length && request.wire.offset < offset + length;
}

const char* nameOf(Command command) {
  switch (command) {
    case Command::read:
      return "READ";
    case Command::write:
      return "WRITE";
    case Command::disconnect:
      return "DISC";
    case Command::flush:
      return "FLUSH";
    case Command::trim:
      return "TRIM";
    case Command::cache:
      return "CACHE";
    case Command::writeZeroes:
      return "WRITE_ZEROES";
    case Command::blockStatus:
      return "BLOCK_STATUS";
  }
  return "unknown command";
}

}  // namespace

std::string describe(const Pending& request) {
  return fmt::format("{} of {} bytes at {}, flags {}, cookie {:x}, of connection {}",
                     nameOf(request.wire.type), request.wire.length, request.wire.offset, request.wire.flags,
                     request.wire.cookie, request.connection->number);
}

Tally& Tally::operator+=(const Tally& other) {
  successes += other.successes;
  refusals += other.refusals;
  errors += other.errors;
  changesOfDead += other.changesOfDead;
  durableAnswers += other.durableAnswers;
  failedSyncs += other.failedSyncs;
  concurrentReads += other.concurrentReads;
  return *this;
}

void Model::fail(const Pending& request, const std::string& message) const {
  if (!resting_) {
    world_.fail(fmt::format("{}: {}", describe(request), message));
  }
}

// --- Exports and clients

std::size_t Model::newGeneration(bool related, bool inMemory) {
  if (!related) {
    domains_.emplace_back();
  }
  const std::size_t domain = related ? generations_.back().domain : domains_.size() - 1;
  generations_.push_back({.domain = domain, .inMemory = inMemory});
  return generations_.size() - 1;
}

void Model::storageFailed(std::size_t generation) {
  Domain& failed = domains_[generations_[generation].domain];
  failed.failedAt = failed.failedAt != 0 ? failed.failedAt : world_.tick();
}

Model::Handle Model::sending(Pending request) {
  request.sentAt = world_.tick();
  request.mustBeDurable = answered_.size();
  if (looks(request) && !request.refusal) {
    const auto content = disk_->content().subspan(request.wire.offset, request.wire.length);
    request.before.assign(content.begin(), content.end());
  }
  world_.note("sends {}{}", describe(request), request.refusal ? ", to be refused" : "");
  pending_.push_back(std::move(request));
  return std::prev(pending_.end());
}

void Model::forgetEnded() {
  const auto isOver = [](const Connection& connection) {
    return connection.over && connection.socket->closedByServer();
  };
  std::erase_if(pending_, [&](const Pending& request) { return isOver(*request.connection); });
}

void Model::answered(Handle request, Error error, const std::vector<Piece>& data,
                     const std::vector<Nbd::Extent>& extents) {
  request->connection->served = true;
  world_.note("answered with {}: {}", static_cast<unsigned int>(error), describe(*request));
  if (request->refusal) {
    ++tally_.refusals;
    if (error != *request->refusal) {
      fail(*request, fmt::format("answered with error {} instead of {}", static_cast<unsigned int>(error),
                                 static_cast<unsigned int>(*request->refusal)));
    }
  } else if (error != Error::none) {
    ++tally_.errors;
    checkError(*request, error);
  } else {
    ++tally_.successes;
    checkSuccess(*request);
    if (request->wire.type == Command::read) {
      checkTiling(*request, data);
      for (const Piece& piece : data) {
        checkContent(*request, piece.data.empty() ? std::vector<std::byte>(piece.length) : piece.data,
                     piece.offset);
      }
    }
    if (request->wire.type == Command::blockStatus) {
      checkExtents(*request, extents);
    }
    if (!request->effects.empty()) {
      answered_.push_back({.request = std::move(*request)});
      answered_.back().request.payload.clear();
    }
  }
  pending_.erase(request);
}

bool Model::hasBeenOvertaken(const Connection& connection) const {
  return !connection.served && connection.socket->goneAt() != 0 &&
         std::ranges::any_of(connections_, [&](const std::shared_ptr<Connection>& other) {
           return other->acceptedAt > connection.acceptedAt;
         });
}

// --- Checks of replies

void Model::checkError(const Pending& request, Error error) {
  const bool fastZero = request.wire.type == Command::writeZeroes && has(request, Nbd::CommandFlag::fastZero);
  if (error == Error::notsup && fastZero) {
    if (wasApplied(request)) {
      fail(request, "refused as not fast, but something was changed");
    }
    return;
  }
  const bool storageIsBroken = domains_[domainOf(request)].syncFailed && error == Error::io &&
                               (modifies(request.wire.type) || syncs(request));
  if (!storageIsBroken && !request.excuses.contains(error)) {
    fail(request, fmt::format("answered with error {}, for which there is no reason",
                              static_cast<unsigned int>(error)));
  }
}

void Model::checkSuccess(const Pending& request) {
  const std::uint64_t end = request.wire.offset + request.wire.length;
  const bool mustBeApplied = request.wire.type == Command::write || request.wire.type == Command::writeZeroes;
  Intervals applied;
  for (const Pending::Effect& effect : request.effects) {
    applied.add(effect.begin, effect.end);
  }
  if (mustBeApplied && !applied.covers(request.wire.offset, end)) {
    fail(request, "answered with success, but not all of it has reached the disk");
  }
  if (request.streamEnd > request.connection->socket->consumed()) {
    fail(request, "answered before all of it had arrived");
  }
  const std::uint64_t failedAt = domains_[domainOf(request)].failedAt;
  const bool relies =
      (modifies(request.wire.type) && request.wire.length > 0) || request.wire.type == Command::flush;
  if (relies && failedAt != 0 && request.sentAt > failedAt) {
    fail(request, "answered with success, although the storage has failed before");
  }
  if (syncs(request) && !isInMemory(request)) {
    checkDurable(request);
  }
}

void Model::checkDurable(const Pending& request) {
  ++tally_.durableAnswers;
  if (!isDurable(request)) {
    fail(request, "answered with success, but not on stable storage");
  }
  if (request.wire.type != Command::flush) {
    return;
  }
  for (Answered& before : std::span(answered_).first(request.mustBeDurable)) {
    before.isDurable = before.isDurable || isDurable(before.request);
    // Who uses a storage that has failed was told; one that is opened afterwards cannot make it good.
    const std::size_t domain = domainOf(before.request);
    const bool toldToBeLost = domain != domainOf(request) && domains_[domain].syncFailed;
    if (!before.isDurable && !toldToBeLost) {
      fail(request,
           fmt::format("answered with success, but this was acknowledged before it was sent, and is not on "
                       "stable storage: {}",
                       describe(before.request)));
    }
  }
}

/// Whether what a write asked for is there even if all memory is lost.
bool Model::isDurable(const Pending& request) const {
  Intervals durable;
  bool nothingIsMissing = true;
  for (const Pending::Effect& effect : request.effects) {
    if (changes_[effect.change] == Fate::durable) {
      durable.add(effect.begin, effect.end);
    } else if (effect.certain || request.wire.type != Command::trim) {
      nothingIsMissing = false;
    }
  }
  return nothingIsMissing || durable.covers(request.wire.offset, request.wire.offset + request.wire.length);
}

void Model::checkTiling(const Pending& request, const std::vector<Piece>& data) {
  Intervals tiles;
  std::uint64_t sum = 0;
  for (const Piece& piece : data) {
    if (piece.length == 0 || !isInside(request, piece.offset, piece.length)) {
      fail(request, "answered with bytes that it did not ask for");
      return;
    }
    tiles.add(piece.offset, piece.offset + piece.length);
    sum += piece.length;
  }
  if (sum != request.wire.length ||
      !tiles.covers(request.wire.offset, request.wire.offset + request.wire.length)) {
    fail(request, "the data do not tile what was asked for");
  }
  if (has(request, Nbd::CommandFlag::df) && data.size() > 1) {
    fail(request, "answered in fragments");
  }
}

/// Each byte is one that stood there at some time since the request was sent.
void Model::checkContent(const Pending& request, std::span<const std::byte> data, std::uint64_t offset) {
  if (!isInside(request, offset, data.size())) {
    return;  // found already
  }
  const auto before = std::span(request.before).subspan(offset - request.wire.offset, data.size());
  if (std::ranges::equal(data, before)) {
    return;
  }
  ++tally_.concurrentReads;
  for (std::size_t index = 0; index < data.size(); ++index) {
    const std::uint64_t position = offset + index;
    const auto explains = [&](const Pending::Change& change) {
      return position >= change.offset && position - change.offset < change.bytes.size() &&
             change.bytes[position - change.offset] == data[index];
    };
    if (data[index] != before[index] && std::ranges::none_of(request.changes, explains)) {
      fail(request, fmt::format("the byte at {} was never {:#x} since the request was sent", position,
                                std::to_integer<unsigned int>(data[index])));
      return;
    }
  }
}

void Model::checkExtents(const Pending& request, const std::vector<Nbd::Extent>& extents) {
  std::uint64_t offset = request.wire.offset;
  const std::uint64_t end = offset + request.wire.length;
  if (extents.empty() || (has(request, Nbd::CommandFlag::reqOne) && extents.size() != 1)) {
    fail(request, "answered with a wrong number of extents");
  }
  constexpr std::uint32_t hole = Nbd::AllocationFlag::hole | Nbd::AllocationFlag::zero;
  for (const Nbd::Extent& extent : extents) {
    if (extent.length == 0 || extent.length > end - offset || (extent.status != 0 && extent.status != hole)) {
      fail(request, "answered with an impossible extent");
      return;
    }
    if (extent.status == hole) {
      checkContent(request, std::vector<std::byte>(extent.length), offset);
    }
    offset += extent.length;
  }
}

// --- What the disk does

std::string Model::objection(const Pending& request) const {
  const Connection& connection = *request.connection;
  if (request.refusal) {
    return "it must be refused";
  }
  if (request.streamEnd > connection.socket->consumed()) {
    return "not all of it has arrived";
  }
  if (connection.socket->closedByServer()) {
    return "its connection is closed";
  }
  const std::uint64_t failedAt = domains_[domainOf(request)].failedAt;
  if (failedAt != 0 && request.sentAt > failedAt) {
    return "the storage has failed before it was sent";
  }
  const std::uint64_t goneAt = connection.socket->goneAt();
  const auto follows = [&](const std::shared_ptr<Connection>& other) {
    return other->served && other->acceptedAt > goneAt;
  };
  if (goneAt != 0 && std::ranges::any_of(connections_, follows)) {
    return "a session that came after its client was gone has been served already";
  }
  return {};
}

/// `matches` says whether the change could be made on behalf of a request.
template <class Matches>
void Model::change(std::uint64_t offset, std::span<const std::byte> bytes, const std::string& what,
                   Matches matches) {
  const std::size_t index = changes_.size();
  changes_.push_back(Fate::inMemory);
  std::vector<Pending*> legal;
  std::string reason;
  for (Pending& request : pending_) {
    if (modifies(request.wire.type) && isInside(request, offset, bytes.size()) && matches(request)) {
      std::string found = objection(request);
      if (found.empty()) {
        legal.push_back(&request);
      } else {
        reason += fmt::format("; {}: {}", describe(request), found);
      }
    }
  }
  if (legal.empty() && !resting_) {
    world_.fail(fmt::format("{} of {} bytes at {}, which {}{}", what, bytes.size(), offset,
                            reason.empty() ? "nobody asked for" : "must not be", reason));
  }
  for (Pending* request : legal) {
    request->effects.push_back(
        {.change = index, .begin = offset, .end = offset + bytes.size(), .certain = legal.size() == 1});
    tally_.changesOfDead += request->connection->socket->goneAt() != 0 ? 1U : 0U;
  }
  if (legal.size() == 1) {
    legal.front()->connection->served = true;
  }
  for (Pending& request : pending_) {
    if (looks(request) && !request.refusal && overlaps(request, offset, bytes.size())) {
      request.changes.push_back({.offset = offset, .bytes = {bytes.begin(), bytes.end()}});
    }
  }
}

void Model::writing(std::uint64_t offset, std::span<const std::byte> bytes) {
  const bool zeroes = isAllZero(bytes);
  change(offset, bytes, "the disk is made to write", [&](const Pending& request) {
    if (request.wire.type == Command::writeZeroes) {
      return zeroes;
    }
    return request.wire.type == Command::write &&
           std::ranges::equal(std::span(request.payload).subspan(offset - request.wire.offset, bytes.size()),
                              bytes);
  });
}

void Model::zeroing(std::uint64_t offset, std::uint64_t length, bool punching) {
  const std::vector<std::byte> zeroes(length);
  change(offset, zeroes, punching ? "the disk is made to punch a hole" : "the disk is made to zero",
         [&](const Pending& request) {
           if (request.wire.type == Command::trim) {
             return punching;
           }
           return request.wire.type == Command::writeZeroes &&
                  !(punching && has(request, Nbd::CommandFlag::noHole));
         });
}

void Model::excuse(std::uint64_t offset, std::uint64_t length, Error error, bool writes) {
  for (Pending& request : pending_) {
    if (modifies(request.wire.type) == writes && overlaps(request, offset, length)) {
      request.excuses.insert(error);
    }
  }
}

void Model::readFails(std::uint64_t offset, std::uint64_t length, int /*error*/) {
  excuse(offset, length, Error::io, false);
}

void Model::writeFails(std::uint64_t offset, std::uint64_t length, int error) {
  excuse(offset, length, error == ENOSPC ? Error::nospc : Error::io, true);
}

void Model::synced(std::size_t changes) {
  for (Fate& fate : std::span(changes_).first(changes)) {
    fate = fate == Fate::inMemory ? Fate::durable : fate;
  }
}

void Model::syncFails(std::size_t changes) {
  ++tally_.failedSyncs;
  for (Fate& fate : std::span(changes_).first(changes)) {
    fate = fate == Fate::inMemory ? Fate::lost : fate;
  }
  for (Domain& one : domains_) {
    one.syncFailed = true;
  }
}

}  // namespace Simulation
