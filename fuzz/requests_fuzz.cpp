// A request, compact or extended as its magic says, and behind it the export that it is meant for: decoded,
// encoded again, and judged against a plain model of the protocol. What is left is taken for the payload of a
// filtered BLOCK_STATUS.

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
Nbd::ExportLimits readLimits(Nbd::Reader& reader, Nbd::HeaderStyle headers) {
  Nbd::ExportLimits limits{.size = reader.number<std::uint64_t>().value_or(1 << 20)};
  limits.transmissionFlags = reader.number<std::uint16_t>().value_or(0xffff);
  limits.minimumBlock = 1U << (reader.number<std::uint8_t>().value_or(0) % 17);
  limits.maximumPayload = reader.number<std::uint32_t>().value_or(Nbd::maxPayload);
  limits.maximumUnfragmented = reader.number<std::uint32_t>().value_or(limits.maximumPayload);
  limits.blockStatus = (reader.number<std::uint8_t>().value_or(1) & 1) != 0;
  limits.headers = headers;
  return limits;
}

void checkVerdict(const Nbd::Request& request, const Nbd::ExportLimits& limits) {
  expect(Nbd::validate(request, limits) == ValidationModel::verdict(request, limits));
}

void checkFilter(const Nbd::Request& request, const Nbd::ExportLimits& limits, Nbd::Bytes payload) {
  constexpr std::uint32_t contextId = 1;
  const std::optional<Nbd::Request> plain = Nbd::applyStatusFilter(request, payload, contextId);
  if (!plain) return;
  std::array<std::byte, Nbd::statusFilterSize(1)> again{};
  Nbd::encodeStatusFilter(again, plain->length, std::span(&contextId, 1));
  expect(std::ranges::equal(again, payload));
  expect(Nbd::payloadLength(*plain, Nbd::HeaderStyle::extended) == 0);
  checkVerdict(*plain, limits);
}

void checkCompact(std::span<const std::byte, Nbd::requestSize> bytes, Nbd::Bytes rest) {
  const std::optional<Nbd::Request> request = Nbd::decodeRequest(bytes);
  if (!request) return;
  std::array<std::byte, Nbd::requestSize> again{};
  Nbd::encodeRequest(again, *request);
  expect(std::ranges::equal(again, bytes));
  Nbd::Reader reader(rest);
  checkVerdict(*request, readLimits(reader, Nbd::HeaderStyle::structured));
}

void checkExtended(std::span<const std::byte, Nbd::extendedRequestSize> bytes, Nbd::Bytes rest) {
  const std::optional<Nbd::Request> request = Nbd::decodeExtendedRequest(bytes);
  if (!request) return;
  std::array<std::byte, Nbd::extendedRequestSize> again{};
  Nbd::encodeExtendedRequest(again, *request);
  expect(std::ranges::equal(again, bytes));
  Nbd::Reader reader(rest);
  const Nbd::ExportLimits limits = readLimits(reader, Nbd::HeaderStyle::extended);
  checkVerdict(*request, limits);
  checkFilter(*request, limits, *reader.bytes(reader.remaining()));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const Nbd::Bytes input = std::as_bytes(std::span(data, size));
  if (input.size() >= Nbd::requestSize) {
    checkCompact(input.first<Nbd::requestSize>(), input.subspan(Nbd::requestSize));
  }
  if (input.size() >= Nbd::extendedRequestSize) {
    checkExtended(input.first<Nbd::extendedRequestSize>(), input.subspan(Nbd::extendedRequestSize));
  }
  return 0;
}
