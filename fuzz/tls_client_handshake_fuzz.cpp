// The handshake of a client that wants TLS, under any server. The first byte chooses what the client wants,
// the next two say how much of the rest comes in the clear; what is left comes out of TLS, if it comes to
// that.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "nbd/client_handshake.h"
#include "tests/support/wire.h"

namespace {

using Nbd::ClientHandshake;
using State = ClientHandshake::State;

void expect(bool promise) {
  if (!promise) std::abort();
}

// What a client that demands TLS says in the clear: its flags, that it wants TLS, and that it leaves.
void checkSilence(const Wire::Buffer& output) {
  const std::size_t most = Nbd::clientFlagsSize + 2 * Nbd::optionHeaderSize;
  expect(output.size() <= most);
  for (std::size_t at = Nbd::clientFlagsSize; at < output.size(); at += Nbd::optionHeaderSize) {
    const auto option = Nbd::loadBig<Nbd::Option>(Nbd::Bytes(output).subspan(at + 8).first<4>());
    expect(option == Nbd::Option::startTls || option == Nbd::Option::abort);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 3) return 0;
  const std::uint8_t choice = data[0];
  const bool required = (choice & 64) != 0;
  const Nbd::Bytes input = std::as_bytes(std::span(data, size)).subspan(3);
  const std::size_t length = std::min<std::size_t>(input.size(), std::size_t{data[1]} << 8 | data[2]);
  const std::size_t piece = 1 + (choice >> 2);
  ClientHandshake handshake({.goal = static_cast<ClientHandshake::Goal>(choice % 3),
                             .exportName = "disk",
                             .extendedHeaders = (choice & 8) != 0,
                             .tls = required ? Nbd::TlsMode::required : Nbd::TlsMode::allowed});

  const auto clear = Wire::converse(handshake, input.first(length), [&] { return piece; });
  expect(clear.keptContract && !handshake.isSecured());
  if (required) {
    checkSilence(clear.output);
    expect(clear.state != State::transmission && clear.state != State::finished);
  }
  if (clear.state != State::startTls) return 0;
  Wire::Buffer output;
  handshake.secured(output);
  expect(handshake.isSecured() && !output.empty() && handshake.exports().empty());
  const auto inside = Wire::converse(handshake, input.subspan(length), [&] { return piece; });
  expect(inside.keptContract && inside.state != State::startTls);
  return 0;
}
