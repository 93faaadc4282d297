// The server's handshake of a server that has TLS, under any client. The first byte chooses the policy, the
// next two say how much of the rest comes in the clear; what is left comes out of TLS, if it comes to that.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "nbd/server_handshake.h"
#include "tests/support/wire.h"

namespace {

using Nbd::Option;
using Nbd::ReplyType;
using Nbd::ServerHandshake;
using State = ServerHandshake::State;

void expect(bool promise) {
  if (!promise) std::abort();
}

Wire::Directory makeDirectory() {
  Wire::Directory directory;
  directory.add({.name = "disk", .size = 1'000'000, .transmissionFlags = 0xffff});
  directory.add({.name = "secret", .size = 512, .refusal = "not for you"});
  return directory;
}

// What a server that demands TLS tells in the clear: that it does.
void checkSilence(const Wire::Buffer& output) {
  const auto replies = Wire::parseReplies(output);
  expect(replies.has_value());
  for (const Wire::OptionReply& reply : *replies) {
    const bool mayBeAnswered = reply.option == Option::startTls || reply.option == Option::abort;
    expect(reply.type == ReplyType::tlsRequired || (mayBeAnswered && reply.type == ReplyType::ack) ||
           (mayBeAnswered && (reply.type == ReplyType::invalid || reply.type == ReplyType::tooBig)));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 3) return 0;
  static const Wire::Directory directory = makeDirectory();
  const bool required = (data[0] & 1) != 0;
  const std::size_t piece = 1 + (data[0] >> 1);
  const Nbd::Bytes input = std::as_bytes(std::span(data, size)).subspan(3);
  const std::size_t length = std::min<std::size_t>(input.size(), std::size_t{data[1]} << 8 | data[2]);
  ServerHandshake handshake(directory, {.tls = required ? Nbd::TlsMode::required : Nbd::TlsMode::allowed});

  const auto clear = Wire::converse(handshake, input.first(length), [&] { return piece; });
  expect(clear.keptContract);
  if (required) {
    expect(clear.state != State::transmission);
    if (clear.state != State::failed) checkSilence(clear.output);
  }
  if (clear.state != State::startTls) return 0;
  handshake.secured();
  const auto inside = Wire::converse(handshake, input.subspan(length), [&] { return piece; });
  expect(inside.keptContract && inside.state != State::startTls);
  if (inside.state == State::transmission) {
    expect(handshake.agreement().exportView.name == "disk");
  } else if (const auto replies = Wire::parseReplies(inside.output)) {
    for (const Wire::OptionReply& reply : *replies) expect(reply.type != ReplyType::tlsRequired);
  }
  return 0;
}
