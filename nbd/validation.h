#pragma once

#include <cstdint>
#include <optional>

#include "nbd/constants.h"
#include "nbd/limits.h"
#include "nbd/request.h"

namespace Nbd {

/// What requests on one connection are measured by: the export as it was agreed on in the handshake.
struct ExportLimits {
  std::uint64_t size = 0;               // bytes
  std::uint16_t transmissionFlags = 0;  // TransmissionFlag, as the client was told them
  std::uint32_t minimumBlock = 1;       // bytes, a power of two: offsets and lengths are multiples of it
  std::uint32_t maximumPayload = maxPayload;       // bytes in one READ or WRITE
  std::uint32_t maximumUnfragmented = maxPayload;  // bytes in one READ with DF; never below 64 KiB
  HeaderStyle headers = HeaderStyle::simple;       // agreed on
  bool blockStatus = false;                        // a metadata context, the only one, is selected
};

namespace Detail {
[[nodiscard]] std::optional<Error> validateFully(const Request& request, const ExportLimits& limits);
}  // namespace Detail

/// Whether the bytes [offset, offset + length) lie inside of `size` bytes. Nothing can wrap.
[[nodiscard]] constexpr bool isInside(std::uint64_t offset, std::uint64_t length, std::uint64_t size) {
  return offset <= size && length <= size - offset;
}

/// The error that `request` must be answered with, or nothing if it may be carried out.
///
/// - Unknown command, unknown, misplaced or unadvertised flag, unadvertised command: `inval`.
/// - WRITE, WRITE_ZEROES, TRIM on a read-only export: `perm`, whatever else is wrong with them.
/// - Beyond the end, wrapped sums included: `nospc` for WRITE and WRITE_ZEROES, `inval` for all others.
/// - READ of more than the payload limit, or than the limit for DF: `overflow`; WRITE of more: `inval`.
/// - Offset or length no multiple of the minimum block: `inval`.
/// - FLUSH with an offset or a length; BLOCK_STATUS without a selected context or of no length: `inval`.
/// - With extended headers, a WRITE without payload, or any other request with one: `inval`. BLOCK_STATUS may
///   have one where that was advertised. It cannot name more than the one context that is selected, so its
///   size is known, and all else about it is judged when it has arrived: see applyStatusFilter().
/// - A length of zero is otherwise legal and does nothing.
/// - DISCONNECT is never refused: it has no reply.
///
/// The data of a refused request (payloadLength()) are still on their way: read past them if
/// payloadIsDrained(), else disconnect.
[[nodiscard]] inline std::optional<Error> validate(const Request& request, const ExportLimits& limits) {
  // Nearly every request is one of these; the rest need not be fast.
  const bool transfer =
      request.type == Command::read ||
      (request.type == Command::write && (limits.transmissionFlags & TransmissionFlag::readOnly) == 0);
  if (transfer && request.flags == plainFlags(request.type, limits.headers) &&
      request.length <= limits.maximumPayload && isInside(request.offset, request.length, limits.size) &&
      ((request.offset | request.length) & (limits.minimumBlock - 1)) == 0) {
    return std::nullopt;
  }
  return Detail::validateFully(request, limits);
}

/// Whether the data of a refused request are worth reading past. If not, disconnect: with extended headers
/// nobody sends more than the largest payload by mistake.
[[nodiscard]] constexpr bool payloadIsDrained(const Request& request, const ExportLimits& limits) {
  const std::uint32_t bound =
      limits.headers == HeaderStyle::extended ? limits.maximumPayload : maxPayloadDrained;
  return payloadLength(request, limits.headers) <= bound;
}

}  // namespace Nbd
