// The client's handshake under any server. The first byte chooses what the client wants and how the rest, the
// server's bytes, is split.

#include <cstdlib>

#include "nbd/client_handshake.h"
#include "tests/support/wire.h"

namespace {

using Nbd::ClientHandshake;
using State = ClientHandshake::State;

void expect(bool promise) {
  if (!promise) std::abort();
}

void checkExport(const Nbd::RemoteExport& remote) {
  expect(Nbd::isWireString(remote.name) && Nbd::isWireString(remote.description));
  expect(std::has_single_bit(remote.minimumBlock) && remote.minimumBlock <= remote.preferredBlock);
  expect(remote.maximumPayload <= Nbd::portablePayload);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::uint8_t choice = data[0];
  const Nbd::Bytes input = std::as_bytes(std::span(data, size)).subspan(1);
  const ClientHandshake::Wish wish{.goal = static_cast<ClientHandshake::Goal>(choice % 3),
                                   .exportName = "disk",
                                   .extendedHeaders = (choice & 64) != 0,
                                   .structuredReplies = (choice & 8) != 0,
                                   .allocationContext = (choice & 16) != 0,
                                   .noZeroes = (choice & 32) != 0};
  const std::size_t piece = 1 + (choice >> 3);

  ClientHandshake whole(wish);
  ClientHandshake split(wish);
  const auto expected = Wire::converse(whole, input);
  const auto outcome = Wire::converse(split, input, [&] { return piece; });
  expect(expected.keptContract && outcome.keptContract);
  expect(outcome.output == expected.output);
  expect(outcome.consumed == expected.consumed && outcome.state == expected.state);

  for (const Nbd::RemoteExport& remote : split.exports()) checkExport(remote);
  checkExport(split.agreement().remote);
  if (outcome.state == State::transmission) {
    expect(split.agreement().remote.size.has_value());
    expect(split.agreement().headers != Nbd::HeaderStyle::simple || !split.agreement().allocationContext);
  }
  expect((outcome.state == State::failed) == !split.failure().message.empty());
  return 0;
}
