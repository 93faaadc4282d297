#include "nbd/validation.h"

namespace Nbd::Detail {

namespace {

// What one command may carry and what an export must have advertised for it.
struct CommandRule {
  Command command;
  std::uint16_t
      flags;  // CommandFlags that make sense, FUA apart: where advertised, FUA goes with any command
  std::uint16_t advertised;  // TransmissionFlag without which the command does not exist; 0 = always there
  bool modifies;
};

constexpr CommandRule commandRules[] = {
    {Command::read, CommandFlag::df, 0, false},
    {Command::write, 0, 0, true},
    {Command::flush, 0, TransmissionFlag::sendFlush, false},
    {Command::trim, 0, TransmissionFlag::sendTrim, true},
    {Command::cache, 0, TransmissionFlag::sendCache, false},
    {Command::writeZeroes, CommandFlag::noHole | CommandFlag::fastZero, TransmissionFlag::sendWriteZeroes,
     true},
    {Command::blockStatus, CommandFlag::reqOne, 0, false},
};

// A command flag that an export must have advertised.
struct FlagRule {
  std::uint16_t flag;
  std::uint16_t advertised;
};

constexpr FlagRule flagRules[] = {
    {CommandFlag::fua, TransmissionFlag::sendFua},
    {CommandFlag::df, TransmissionFlag::sendDf},
    {CommandFlag::fastZero, TransmissionFlag::sendFastZero},
};

const CommandRule* findRule(Command command) {
  for (const CommandRule& rule : commandRules) {
    if (rule.command == command) return &rule;
  }
  return nullptr;
}

bool has(std::uint16_t flags, std::uint16_t flag) { return (flags & flag) != 0; }

// With extended headers a WRITE says that data follow, and BLOCK_STATUS may; nothing else has a payload.
bool payloadFlagIsLegal(const Request& request, const ExportLimits& limits) {
  const bool hasPayload = has(request.flags, CommandFlag::payloadLength);
  if (limits.headers != HeaderStyle::extended) return !hasPayload;
  if (request.type == Command::write) return hasPayload;
  const bool mayHave = request.type == Command::blockStatus &&
                       has(limits.transmissionFlags, TransmissionFlag::blockStatusPayload);
  return mayHave || !hasPayload;
}

bool flagsAreLegal(const Request& request, const CommandRule& rule, const ExportLimits& limits) {
  if (!payloadFlagIsLegal(request, limits)) return false;
  const int known = rule.flags | CommandFlag::fua | CommandFlag::payloadLength;
  if ((request.flags & ~known) != 0) return false;
  for (const FlagRule& flag : flagRules) {
    if (has(request.flags, flag.flag) && !has(limits.transmissionFlags, flag.advertised)) return false;
  }
  return true;
}

std::optional<Error> checkPayload(const Request& request, const ExportLimits& limits) {
  if (request.type == Command::write && request.length > limits.maximumPayload) return Error::inval;
  if (request.type != Command::read) return std::nullopt;
  if (request.length > limits.maximumPayload) return Error::overflow;
  if (has(request.flags, CommandFlag::df) && request.length > limits.maximumUnfragmented)
    return Error::overflow;
  return std::nullopt;
}

std::optional<Error> checkRange(const Request& request, const ExportLimits& limits) {
  if (!isInside(request.offset, request.length, limits.size)) {
    const bool grows = request.type == Command::write || request.type == Command::writeZeroes;
    return grows ? Error::nospc : Error::inval;
  }
  if (((request.offset | request.length) & (limits.minimumBlock - 1)) != 0) return Error::inval;
  return std::nullopt;
}

}  // namespace

std::optional<Error> validateFully(const Request& request, const ExportLimits& limits) {
  if (request.type == Command::disconnect) return std::nullopt;
  const CommandRule* rule = findRule(request.type);
  if (rule == nullptr) return Error::inval;
  if (rule->modifies && has(limits.transmissionFlags, TransmissionFlag::readOnly)) return Error::perm;
  if (rule->advertised != 0 && !has(limits.transmissionFlags, rule->advertised)) return Error::inval;
  if (!flagsAreLegal(request, *rule, limits)) return Error::inval;
  if (request.type == Command::flush) {
    if (request.offset != 0 || request.length != 0) return Error::inval;
    return std::nullopt;
  }
  if (request.type == Command::blockStatus) {
    if (!limits.blockStatus) return Error::inval;
    if (has(request.flags, CommandFlag::payloadLength)) {
      // More ids than there are contexts repeat one or name none; the range is in the payload.
      return request.length == statusFilterSize(1) ? std::nullopt : std::optional(Error::inval);
    }
    // A reply must hold an extent that is not empty: there is none for an empty range.
    if (request.length == 0) return Error::inval;
  }
  if (const std::optional<Error> error = checkPayload(request, limits)) return error;
  return checkRange(request, limits);
}

}  // namespace Nbd::Detail
