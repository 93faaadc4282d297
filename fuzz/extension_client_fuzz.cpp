// The client's side of the private extension under any server: an inquiry for everything. The first byte
// chooses how the rest, the server's bytes behind its greeting, is split.

#include <cstdlib>

#include "nbd/client_handshake.h"
#include "nbd/extension_inquiry.h"
#include "nbd/limits.h"
#include "tests/support/wire.h"

namespace {

using namespace Nbd::Extension;
using Nbd::ClientHandshake;

void expect(bool promise) {
  if (!promise) std::abort();
}

Inquiry::Wish everything() {
  return {.self = {.product = "fuzz"},
          .properties = true,
          .exports = true,
          .compression = Compression{.blockLength = 65'536},
          .nothingElse = true};
}

// What is handed on is what the documentation promises.
void checkFindings(const Inquiry::Findings& findings) {
  expect(!findings.version || findings.server);
  expect(findings.properties.size() <= Nbd::maxProperties);
  std::size_t deepest = 0;
  for (const Property& property : findings.properties) {
    expect(property.depth <= deepest && property.depth < Nbd::maxPropertyDepth);
    deepest = property.depth + (property.type == Property::Type::list ? 1 : 0);
    expect(Nbd::isWireString(property.name) && property.octets.size() <= Nbd::maxStringLength);
    expect(property.type != Property::Type::text || Nbd::isWireString(property.octets));
  }
  for (const ExportEntry& entry : findings.exports) expect(Nbd::isWireString(entry.name));
  if (findings.compression)
    expect(findings.compression->blockLength > 0 && findings.compression->blockLength <= 65'536);
  expect(!findings.exportsRefused || findings.exports.empty());
}

// Messages that readProperties() and readExports() take, in whatever pieces, encode to the same bytes.
void checkEntries(Nbd::Bytes body) {
  std::vector<ExportEntry> entries;
  if (!readExports(body, entries)) return;
  Wire::Buffer again;
  for (const ExportEntry& entry : entries) {
    if (!appendExport(again, entry)) return;
  }
  expect(std::ranges::equal(again, body));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const Nbd::Bytes bytes = std::as_bytes(std::span(data, size)).subspan(1);
  checkEntries(bytes);
  const Wire::Buffer words = Wire::join({Wire::text("NBDMAGICIHAVEOPT"), Wire::number(std::uint16_t{3}),
                                         Wire::Buffer(bytes.begin(), bytes.end())});
  Inquiry wholeInquiry(everything());
  Inquiry splitInquiry(everything());
  const auto wish = [](Inquiry& inquiry) {
    return ClientHandshake::Wish{.goal = ClientHandshake::Goal::details, .dialogue = &inquiry};
  };
  ClientHandshake whole(wish(wholeInquiry));
  ClientHandshake split(wish(splitInquiry));
  const auto expected = Wire::converse(whole, words);
  const auto outcome = Wire::converse(split, words, [&] { return std::size_t{1} + data[0]; });
  expect(expected.keptContract && outcome.keptContract);
  expect(outcome.output == expected.output && outcome.state == expected.state);
  expect((outcome.state == ClientHandshake::State::failed) == !split.failure().message.empty());
  checkFindings(splitInquiry.findings());
  return 0;
}
