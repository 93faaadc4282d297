#include "nbdd/reservations/lease.h"

#include <fmt/core.h>
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "nbdd/reservations/digest.h"

namespace Nbdd::Reservations {
namespace {

Lease someLease() { return leaseWith(Key(randomOctets<Key::size>())); }

ProofContext someContext() {
  return {.purpose = Purpose::hold,
          .clientNonce = randomOctets<32>(),
          .serverNonce = randomOctets<32>(),
          .binding = {}};
}

TEST(Lease, TheIdFollowsFromTheKeyAndDoesNotTellIt) {
  const Lease lease = someLease();
  EXPECT_EQ(leaseWith(lease.key), lease);
  EXPECT_NE(someLease().id, lease.id);
  EXPECT_NE(asText(lease.id), asText(lease.key.octets()).substr(0, lease.id.size()));
}

TEST(Lease, BothEndsComeToTheSameProof) {
  const Lease lease = someLease();
  const ProofContext context = someContext();
  EXPECT_EQ(holderProof(lease, context), holderProof(lease, context));
  EXPECT_EQ(serverProof(lease, context), serverProof(lease, context));
}

TEST(Lease, AProofIsGoodForOneLeaseOnePurposeOneRunAndOneChannel) {
  const Lease lease = someLease();
  const ProofContext context = someContext();
  std::set<Proof> proofs{holderProof(lease, context), serverProof(lease, context),
                         holderProof(someLease(), context)};
  ProofContext other = context;
  other.purpose = Purpose::release;
  proofs.insert(holderProof(lease, other));
  other = context;
  other.clientNonce[0] ^= std::byte{1};
  proofs.insert(holderProof(lease, other));
  other = context;
  other.serverNonce[31] ^= std::byte{1};
  proofs.insert(holderProof(lease, other));
  other = context;
  std::swap(other.clientNonce, other.serverNonce);
  proofs.insert(holderProof(lease, other));
  other = context;
  other.binding = "";
  proofs.insert(holderProof(lease, other));
  other.binding = "a channel";
  proofs.insert(holderProof(lease, other));
  other.binding = "another channel";
  proofs.insert(holderProof(lease, other));
  EXPECT_EQ(proofs.size(), 10U);
}

TEST(Digest, FieldsDoNotRunIntoOneAnother) {
  const Key key(randomOctets<Key::size>());
  EXPECT_NE(Digest(key).field("ab").field("c").take(), Digest(key).field("a").field("bc").take());
  EXPECT_NE(Digest(key).field("ab").take(), Digest(key).field("ab").field("").take());
}

TEST(Digest, IsHmacSha256OfLengthsAndFields) {
  Key key;
  for (std::size_t index = 0; index < Key::size; ++index) key.octets()[index] = static_cast<std::byte>(index);
  std::string digits;
  for (const std::byte octet : Digest(key).field("what do ya want for nothing?").take()) {
    digits += fmt::format("{:02x}", std::to_integer<unsigned int>(octet));
  }
  EXPECT_EQ(digits, "17ab61a3fb24911a70ad1ba01fd497a73202848e12467c50b45e46751913e284");
}

}  // namespace
}  // namespace Nbdd::Reservations
