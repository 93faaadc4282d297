#pragma once

#include <cstdint>
#include <limits>
#include <optional>

#include "nbd/request.h"
#include "nbd/validation.h"

/// Which error a request deserves, told a second time: command by command, in the order in which a person
/// would go through the protocol's text, with nothing shared with the code under test.
namespace ValidationModel {

using Nbd::Command;
using Nbd::Error;

inline bool endsBehind(const Nbd::Request& request, std::uint64_t size) {
  if (request.offset > std::numeric_limits<std::uint64_t>::max() - request.length) return true;
  return request.offset + request.length > size;
}

inline std::optional<Error> verdict(const Nbd::Request& request, const Nbd::ExportLimits& limits) {
  const auto advertises = [&](int bit) { return (limits.transmissionFlags >> bit & 1) == 1; };
  const auto carries = [&](int bit) { return (request.flags >> bit & 1) == 1; };
  const auto carriesOnly = [&](unsigned bits) { return (request.flags & ~bits) == 0; };
  const bool isMisaligned =
      request.offset % limits.minimumBlock != 0 || request.length % limits.minimumBlock != 0;
  const bool fuaRefused = carries(0) && !advertises(3);
  const bool isExtended = limits.headers == Nbd::HeaderStyle::extended;

  switch (static_cast<int>(request.type)) {
    case 0:  // READ
      if (!carriesOnly(0b101) || fuaRefused || (carries(2) && !advertises(7))) return Error::inval;
      if (request.length > limits.maximumPayload) return Error::overflow;
      if (carries(2) && request.length > limits.maximumUnfragmented) return Error::overflow;
      if (endsBehind(request, limits.size) || isMisaligned) return Error::inval;
      return std::nullopt;
    case 1:  // WRITE
      if (advertises(1)) return Error::perm;
      if (isExtended != carries(5)) return Error::inval;
      if (!carriesOnly(0b10'0001) || fuaRefused || request.length > limits.maximumPayload)
        return Error::inval;
      if (endsBehind(request, limits.size)) return Error::nospc;
      if (isMisaligned) return Error::inval;
      return std::nullopt;
    case 2:  // DISC
      return std::nullopt;
    case 3:  // FLUSH
      if (!advertises(2) || !carriesOnly(0b1) || fuaRefused) return Error::inval;
      if (request.offset != 0 || request.length != 0) return Error::inval;
      return std::nullopt;
    case 4:  // TRIM
      if (advertises(1)) return Error::perm;
      if (!advertises(5) || !carriesOnly(0b1) || fuaRefused) return Error::inval;
      if (endsBehind(request, limits.size) || isMisaligned) return Error::inval;
      return std::nullopt;
    case 5:  // CACHE
      if (!advertises(10) || !carriesOnly(0b1) || fuaRefused) return Error::inval;
      if (endsBehind(request, limits.size) || isMisaligned) return Error::inval;
      return std::nullopt;
    case 6:  // WRITE_ZEROES
      if (advertises(1)) return Error::perm;
      if (!advertises(6) || !carriesOnly(0b10011) || fuaRefused) return Error::inval;
      if (carries(4) && !advertises(11)) return Error::inval;
      if (endsBehind(request, limits.size)) return Error::nospc;
      if (isMisaligned) return Error::inval;
      return std::nullopt;
    case 7:  // BLOCK_STATUS
      if (!limits.blockStatus || !carriesOnly(0b10'1001) || fuaRefused) return Error::inval;
      if (carries(5)) {
        // An effect length of 8 bytes and one context id of 4; the range stands there.
        if (!isExtended || !advertises(12) || request.length != 12) return Error::inval;
        return std::nullopt;
      }
      if (request.length == 0) return Error::inval;
      if (endsBehind(request, limits.size) || isMisaligned) return Error::inval;
      return std::nullopt;
    default:
      return Error::inval;
  }
}

}  // namespace ValidationModel
