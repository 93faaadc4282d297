#include "nbdd/reservations/lease.h"

#include <fmt/core.h>

#include <algorithm>

#include "nbdd/reservations/digest.h"

namespace Nbdd::Reservations {

namespace {

Proof proofOf(std::string_view who, const Lease& lease, const ProofContext& context) {
  const std::byte purpose{static_cast<std::uint8_t>(context.purpose)};
  Digest digest(lease.key);
  digest.field(who)
      .field(std::span(&purpose, 1))
      .field(lease.id)
      .field(context.clientNonce)
      .field(context.serverNonce)
      .field(context.binding ? "tls-exporter" : "")
      .field(context.binding.value_or(""));
  return digest.take();
}

}  // namespace

Lease leaseWith(const Key& key) {
  Lease lease{.key = key};
  const auto digest = Digest(key).field("org.talvek.NBD lease id 1").take();
  std::copy_n(digest.begin(), lease.id.size(), lease.id.begin());
  return lease;
}

Proof holderProof(const Lease& lease, const ProofContext& context) {
  return proofOf("org.talvek.NBD holder's proof 1", lease, context);
}

Proof serverProof(const Lease& lease, const ProofContext& context) {
  return proofOf("org.talvek.NBD server's proof 1", lease, context);
}

std::string toText(const LeaseId& id) {
  std::string text;
  for (const std::byte octet : id) text += fmt::format("{:02x}", std::to_integer<unsigned int>(octet));
  return text;
}

}  // namespace Nbdd::Reservations
