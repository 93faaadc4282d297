// The server's handshake under any client. The first byte chooses the policy and how the rest, the client's
// bytes, is split.

#include <cstdlib>
#include <string>

#include "nbd/limits.h"
#include "nbd/server_handshake.h"
#include "tests/support/wire.h"

namespace {

using Nbd::ServerHandshake;
using State = ServerHandshake::State;

void expect(bool promise) {
  if (!promise) std::abort();
}

Wire::Directory makeDirectory() {
  Wire::Directory directory;
  directory.add(
      {.name = "disk", .description = "the first disk", .size = 1'000'000, .transmissionFlags = 0xffff});
  directory.add({.name = "tape", .size = 0, .minimumBlock = 512});
  return directory;
}

// What a client may come to hold us to.
void checkAgreement(const ServerHandshake::Agreement& agreement) {
  const bool hasDf = (agreement.exportView.transmissionFlags & Nbd::TransmissionFlag::sendDf) != 0;
  expect((agreement.exportView.transmissionFlags & Nbd::TransmissionFlag::hasFlags) != 0);
  const bool hasFilter =
      (agreement.exportView.transmissionFlags & Nbd::TransmissionFlag::blockStatusPayload) != 0;
  expect(agreement.headers != Nbd::HeaderStyle::simple || !hasDf);
  expect(agreement.headers != Nbd::HeaderStyle::simple || !agreement.allocationContext);
  expect(agreement.headers == Nbd::HeaderStyle::extended || !hasFilter);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  static const Wire::Directory directory = makeDirectory();
  const std::uint8_t choice = data[0];
  const Nbd::Bytes input = std::as_bytes(std::span(data, size)).subspan(1);
  const ServerHandshake::Policy policy{.noZeroes = (choice & 1) != 0,
                                       .structuredReplies = (choice & 2) != 0,
                                       .extendedHeaders = (choice & 8) != 0,
                                       .listing = (choice & 4) != 0};
  const std::size_t piece = 1 + (choice >> 3);

  ServerHandshake whole(directory, policy);
  ServerHandshake split(directory, policy);
  const auto expected = Wire::converse(whole, input);
  const auto outcome = Wire::converse(split, input, [&] { return piece; });
  expect(expected.keptContract && outcome.keptContract);
  expect(outcome.output == expected.output);
  expect(outcome.consumed == expected.consumed && outcome.state == expected.state);
  expect(outcome.largestStep <= Nbd::handshakeOutputStep + 2 * Nbd::maxStringLength);
  expect(outcome.state == State::transmission || Wire::parseReplies(outcome.output).has_value());
  if (outcome.state == State::transmission) checkAgreement(split.agreement());
  return 0;
}
