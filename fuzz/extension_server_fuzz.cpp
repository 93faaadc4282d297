// The server's side of the private extension under any client. The first byte chooses how the rest, the
// client's options behind its flags, is split, and how late the handler answers; the bodies are also given to
// each decoder.

#include <cstdlib>

#include "nbd/extension.h"
#include "nbd/server_handshake.h"
#include "tests/support/extension_peer.h"
#include "tests/support/wire.h"

namespace {

using namespace Nbd::Extension;
using Nbd::ServerHandshake;

void expect(bool promise) {
  if (!promise) std::abort();
}

Wire::ExtensionPeer makePeer(int pauses) {
  Wire::ExtensionPeer peer;
  peer.pauses = pauses;
  peer.properties = {{.type = Property::Type::list, .name = "list"},
                     {.depth = 1, .type = Property::Type::number, .name = "number", .number = 7}};
  peer.exports.assign(1000, {.size = 1 << 20, .flags = 3, .name = "disk"});
  return peer;
}

// What a decoder takes, its encoder gives back.
void checkDecoders(Nbd::Bytes body) {
  if (const auto hello = decodeHello(body)) {
    const auto again = encodeHello(*hello);
    expect(again.size() <= body.size() && std::ranges::equal(again, body.first(again.size())));
    expect(parseUuid(uuidText(hello->server)) == hello->server);
  }
  if (const auto compression = decodeCompression(body))
    expect(std::ranges::equal(encodeCompression(*compression), body));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const Nbd::Bytes bytes = std::as_bytes(std::span(data, size)).subspan(1);
  checkDecoders(bytes);

  Wire::Directory directory;
  directory.add({.name = "disk", .size = 1 << 20});
  const Wire::Buffer input = Wire::join({Wire::clientFlags(), Wire::Buffer(bytes.begin(), bytes.end())});
  const std::size_t piece = 1 + (data[0] >> 2);
  Wire::ExtensionPeer prompt = makePeer(0);
  Wire::ExtensionPeer late = makePeer(data[0] & 3);
  ServerHandshake whole(directory, {}, &prompt);
  ServerHandshake split(directory, {}, &late);
  const auto expected = Wire::converse(whole, input);
  const auto outcome = Wire::converse(split, input, [&] { return piece; });
  expect(expected.keptContract && outcome.keptContract);
  expect(outcome.output == expected.output);
  expect(outcome.consumed == expected.consumed && outcome.state == expected.state);
  expect(outcome.largestStep <= Nbd::handshakeOutputStep + Nbd::maxExtensionBody + 64);
  for (const Question& question : late.asked) checkDecoders(question.body);
  return 0;
}
