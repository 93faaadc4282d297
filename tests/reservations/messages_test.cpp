#include "nbdd/reservations/messages.h"

#include <gtest/gtest.h>

#include "nbdd/reservations/digest.h"
#include "nbdd/reservations/limits.h"

namespace Nbdd::Reservations {
namespace {

using namespace std::chrono_literals;

/// A body is read as what was written, and nothing that is shorter or longer is read at all.
template <class Message, class Decode>
void expectExact(const Message& message, Decode decode, bool endIsOpen = false) {
  Body body = encode(message);
  EXPECT_EQ(decode(body), message);
  const std::size_t shortest = endIsOpen ? body.size() - 1 : body.size();
  for (std::size_t length = 0; length < shortest; ++length) {
    const auto read = decode(Nbd::Bytes(body).first(length));
    if (read && !endIsOpen) ADD_FAILURE() << length << " bytes of " << body.size() << " are read";
  }
  body.push_back(std::byte{'x'});
  if (!endIsOpen) {
    EXPECT_FALSE(decode(body));
  }
}

TEST(ReservationMessages, AreReadAsWritten) {
  expectExact(ReservingBegun{.status = Status::granted, .serverFirst = "r=x"}, decodeReservingBegun, true);
  expectExact(ReservingBegun{.status = Status::disabled}, decodeReservingBegun);
  expectExact(Reserved{.status = Status::granted, .time = 300s, .serverFinal = "v=x"}, decodeReserved, true);
  expectExact(Reserved{.status = Status::renewed, .time = 300s, .serverFinal = "v=x"}, decodeReserved, true);
  expectExact(Reserved{.status = Status::wrongPassword}, decodeReserved);
  expectExact(ProofBegin{.lease = randomOctets<16>(), .clientNonce = randomOctets<32>()}, decodeProofBegin);
  expectExact(Nonce(randomOctets<32>()), decodeNonce);
  expectExact(ProofFinish{.purpose = Purpose::release, .proof = randomOctets<32>()}, decodeProofFinish);
  expectExact(Proven{.status = Status::granted, .time = 1s, .serverProof = randomOctets<32>()}, decodeProven);
  expectExact(Proven{.status = Status::leaseLost}, decodeProven);
}

TEST(ReservationMessages, TheBytesAreThoseOfTheDocumentation) {
  EXPECT_EQ(encode(Proven{.status = Status::leaseLost}), (Body{std::byte{0}, std::byte{6}}));
  const Body body = encode(Reserved{.status = Status::granted, .time = 300s, .serverFinal = "v=x"});
  EXPECT_EQ(asText(body), std::string("\0\0\0\0\x01\x2cv=x", 9));
}

TEST(ReservationMessages, WhatMakesNoSenseIsNotRead) {
  EXPECT_FALSE(decodeScramMessage({}));
  EXPECT_FALSE(decodeScramMessage(encodeScramMessage(std::string("a\0b", 3))));
  EXPECT_FALSE(decodeScramMessage(encodeScramMessage(std::string(Limits::scramMessage + 1, 'x'))));
  EXPECT_TRUE(decodeScramMessage(encodeScramMessage(std::string(Limits::scramMessage, 'x'))));
  Body unknownPurpose = encode(ProofFinish{});
  unknownPurpose[0] = std::byte{3};
  EXPECT_FALSE(decodeProofFinish(unknownPurpose));
  EXPECT_FALSE(decodeReserved(
      encode(Reserved{.status = Status::granted, .time = Limits::longestLease + 1s, .serverFinal = "v"})));
}

TEST(ReservationMessages, AnUnknownRefusalIsARefusal) {
  const std::optional<Proven> answer = decodeProven(Body{std::byte{0x12}, std::byte{0x34}});
  ASSERT_TRUE(answer);
  EXPECT_NE(answer->status, Status::granted);
}

}  // namespace
}  // namespace Nbdd::Reservations
