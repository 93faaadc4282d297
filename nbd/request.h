#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "nbd/bytes.h"
#include "nbd/constants.h"
#include "nbd/contract.h"

namespace Nbd {

/// One request of the transmission phase, as it stood on the wire: nothing in it has been checked.
struct Request {
  std::uint16_t flags = 0;       // CommandFlag
  Command type = Command::read;  // may hold a number that no Command names
  std::uint64_t cookie = 0;      // chosen by the client, echoed in the reply
  std::uint64_t offset = 0;      // bytes
  std::uint64_t length = 0;      // bytes of the export, or of data behind the request: see payloadLength()

  friend bool operator==(const Request&, const Request&) = default;
};

/// How many bytes a request takes on the wire, without the data behind it.
[[nodiscard]] constexpr std::size_t requestSizeOf(HeaderStyle headers) {
  return headers == HeaderStyle::extended ? extendedRequestSize : requestSize;
}

/// The request in `bytes`, without extended headers. Nothing if the magic is wrong: the peer is out of step,
/// only disconnecting helps.
[[nodiscard]] inline std::optional<Request> decodeRequest(std::span<const std::byte, requestSize> bytes) {
  if (loadBig<std::uint32_t>(bytes.subspan<0, 4>()) != requestMagic) return std::nullopt;
  return Request{.flags = loadBig<std::uint16_t>(bytes.subspan<4, 2>()),
                 .type = loadBig<Command>(bytes.subspan<6, 2>()),
                 .cookie = loadBig<std::uint64_t>(bytes.subspan<8, 8>()),
                 .offset = loadBig<std::uint64_t>(bytes.subspan<16, 8>()),
                 .length = loadBig<std::uint32_t>(bytes.subspan<24, 4>())};
}

/// The same with extended headers.
[[nodiscard]] inline std::optional<Request> decodeExtendedRequest(
    std::span<const std::byte, extendedRequestSize> bytes) {
  if (loadBig<std::uint32_t>(bytes.subspan<0, 4>()) != extendedRequestMagic) return std::nullopt;
  return Request{.flags = loadBig<std::uint16_t>(bytes.subspan<4, 2>()),
                 .type = loadBig<Command>(bytes.subspan<6, 2>()),
                 .cookie = loadBig<std::uint64_t>(bytes.subspan<8, 8>()),
                 .offset = loadBig<std::uint64_t>(bytes.subspan<16, 8>()),
                 .length = loadBig<std::uint64_t>(bytes.subspan<24, 8>())};
}

/// Without extended headers: the length must be below 4 GiB.
inline void encodeRequest(std::span<std::byte, requestSize> bytes, const Request& request) {
  storeBig<std::uint32_t>(bytes.subspan<0, 4>(), requestMagic);
  storeBig<std::uint16_t>(bytes.subspan<4, 2>(), request.flags);
  storeBig<Command>(bytes.subspan<6, 2>(), request.type);
  storeBig<std::uint64_t>(bytes.subspan<8, 8>(), request.cookie);
  storeBig<std::uint64_t>(bytes.subspan<16, 8>(), request.offset);
  storeBig<std::uint32_t>(bytes.subspan<24, 4>(), narrow<std::uint32_t>(request.length));
}

inline void encodeExtendedRequest(std::span<std::byte, extendedRequestSize> bytes, const Request& request) {
  storeBig<std::uint32_t>(bytes.subspan<0, 4>(), extendedRequestMagic);
  storeBig<std::uint16_t>(bytes.subspan<4, 2>(), request.flags);
  storeBig<Command>(bytes.subspan<6, 2>(), request.type);
  storeBig<std::uint64_t>(bytes.subspan<8, 8>(), request.cookie);
  storeBig<std::uint64_t>(bytes.subspan<16, 8>(), request.offset);
  storeBig<std::uint64_t>(bytes.subspan<24, 8>(), request.length);
}

/// The flag that a request of this type carries in any case: with extended headers a WRITE says that data
/// follow.
[[nodiscard]] constexpr std::uint16_t plainFlags(Command type, HeaderStyle headers) {
  return headers == HeaderStyle::extended && type == Command::write ? CommandFlag::payloadLength
                                                                    : std::uint16_t{0};
}

/// How many bytes of data follow the request on the wire, whether or not it will be obeyed.
[[nodiscard]] constexpr std::uint64_t payloadLength(const Request& request, HeaderStyle headers) {
  const bool hasPayload = headers == HeaderStyle::extended ? (request.flags & CommandFlag::payloadLength) != 0
                                                           : request.type == Command::write;
  return hasPayload ? request.length : 0;
}

// --- BLOCK_STATUS of some contexts alone: the payload of such a request, with extended headers
// ---------------------

/// Bytes of the payload that names so many contexts.
[[nodiscard]] constexpr std::size_t statusFilterSize(std::size_t contextCount) {
  return sizeof(std::uint64_t) + sizeof(std::uint32_t) * contextCount;
}

/// Stores the payload that asks for the status of `length` bytes in the contexts with those ids. `bytes`
/// holds at least statusFilterSize(contextIds.size()) bytes.
void encodeStatusFilter(std::span<std::byte> bytes, std::uint64_t length,
                        std::span<const std::uint32_t> contextIds);

/// The request without payload that a BLOCK_STATUS with this payload stands for, to be judged like any other.
/// Nothing if it names anything but `contextId`, the only context that is selected, once.
[[nodiscard]] std::optional<Request> applyStatusFilter(const Request& request, Bytes payload,
                                                       std::uint32_t contextId);

}  // namespace Nbd
