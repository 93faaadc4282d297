#include "nbd/request.h"

#include "nbd/contract.h"

namespace Nbd {

void encodeStatusFilter(std::span<std::byte> bytes, std::uint64_t length,
                        std::span<const std::uint32_t> contextIds) {
  require(bytes.size() >= statusFilterSize(contextIds.size()));
  storeBig<std::uint64_t>(bytes.first<8>(), length);
  std::span<std::byte> rest = bytes.subspan(8);
  for (const std::uint32_t id : contextIds) {
    storeBig<std::uint32_t>(rest.first<4>(), id);
    rest = rest.subspan(4);
  }
}

std::optional<Request> applyStatusFilter(const Request& request, Bytes payload, std::uint32_t contextId) {
  Reader reader(payload);
  const auto length = reader.number<std::uint64_t>();
  const auto wanted = reader.number<std::uint32_t>();
  if (!length || wanted != contextId || !reader.atEnd()) return std::nullopt;
  Request plain = request;
  plain.length = *length;
  plain.flags = static_cast<std::uint16_t>(request.flags & ~CommandFlag::payloadLength);
  return plain;
}

}  // namespace Nbd
