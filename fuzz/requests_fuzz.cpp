// A request of 28 bytes, and behind it the export that it is meant for: decoded, encoded again, and judged
// against a plain model of the protocol.

#include <algorithm>
#include <array>
#include <cstdlib>

#include "nbd/request.h"
#include "nbd/validation.h"
#include "tests/support/validation_model.h"

namespace {

void expect(bool promise) {
  if (!promise) std::abort();
}

// Missing bytes are zero.
Nbd::ExportLimits readLimits(Nbd::Bytes bytes) {
  Nbd::Reader reader(bytes);
  Nbd::ExportLimits limits{.size = reader.number<std::uint64_t>().value_or(1 << 20)};
  limits.transmissionFlags = reader.number<std::uint16_t>().value_or(0xffff);
  limits.minimumBlock = 1U << (reader.number<std::uint8_t>().value_or(0) % 17);
  limits.maximumPayload = reader.number<std::uint32_t>().value_or(Nbd::maxPayload);
  limits.maximumUnfragmented = reader.number<std::uint32_t>().value_or(limits.maximumPayload);
  limits.blockStatus = (reader.number<std::uint8_t>().value_or(1) & 1) != 0;
  return limits;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const Nbd::Bytes input = std::as_bytes(std::span(data, size));
  if (input.size() < Nbd::requestSize) return 0;
  const auto bytes = input.first<Nbd::requestSize>();
  const std::optional<Nbd::Request> request = Nbd::decodeRequest(bytes);
  if (!request) return 0;

  std::array<std::byte, Nbd::requestSize> again{};
  Nbd::encodeRequest(again, *request);
  expect(std::ranges::equal(again, bytes));

  const Nbd::ExportLimits limits = readLimits(input.subspan(Nbd::requestSize));
  expect(Nbd::validate(*request, limits) == ValidationModel::verdict(*request, limits));
  return 0;
}
