#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include "nbd/bytes.h"
#include "nbd/constants.h"

namespace Nbd {

/// One request of the transmission phase, as it stood on the wire: nothing in it has been checked.
struct Request {
  std::uint16_t flags = 0;       // CommandFlag
  Command type = Command::read;  // may hold a number that no Command names
  std::uint64_t cookie = 0;      // chosen by the client, echoed in the reply
  std::uint64_t offset = 0;      // bytes
  std::uint32_t length = 0;      // bytes; of a WRITE also those that follow the request

  friend bool operator==(const Request&, const Request&) = default;
};

/// The request in `bytes`. Nothing if the magic is wrong: the peer is out of step, only disconnecting helps.
[[nodiscard]] inline std::optional<Request> decodeRequest(std::span<const std::byte, requestSize> bytes) {
  if (loadBig<std::uint32_t>(bytes.subspan<0, 4>()) != requestMagic) return std::nullopt;
  return Request{.flags = loadBig<std::uint16_t>(bytes.subspan<4, 2>()),
                 .type = loadBig<Command>(bytes.subspan<6, 2>()),
                 .cookie = loadBig<std::uint64_t>(bytes.subspan<8, 8>()),
                 .offset = loadBig<std::uint64_t>(bytes.subspan<16, 8>()),
                 .length = loadBig<std::uint32_t>(bytes.subspan<24, 4>())};
}

inline void encodeRequest(std::span<std::byte, requestSize> bytes, const Request& request) {
  storeBig<std::uint32_t>(bytes.subspan<0, 4>(), requestMagic);
  storeBig<std::uint16_t>(bytes.subspan<4, 2>(), request.flags);
  storeBig<Command>(bytes.subspan<6, 2>(), request.type);
  storeBig<std::uint64_t>(bytes.subspan<8, 8>(), request.cookie);
  storeBig<std::uint64_t>(bytes.subspan<16, 8>(), request.offset);
  storeBig<std::uint32_t>(bytes.subspan<24, 4>(), request.length);
}

/// How many bytes of data follow the request on the wire, whether or not it will be obeyed.
[[nodiscard]] constexpr std::uint32_t payloadLength(const Request& request) {
  return request.type == Command::write ? request.length : 0;
}

}  // namespace Nbd
