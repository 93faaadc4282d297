#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "nbdd/reservations/key.h"

namespace Nbdd::Reservations {

/// The HMAC (RFC 2104) with SHA-256 of a sequence of fields. Each is preceded by its length, so that no two
/// sequences give the same message.
class Digest {
 public:
  explicit Digest(const Key& key) : key_(key) {}

  Digest& field(std::span<const std::byte> octets);
  Digest& field(std::string_view text) { return field(std::as_bytes(std::span(text))); }

  Octets<Key::size> take() const;

 private:
  const Key key_;
  std::vector<std::byte> message_;
};

/// PBKDF2 (RFC 8018) with HMAC-SHA-256. Takes as long as `iterations` say: not for a thread with an event
/// loop.
Key stretch(std::string_view password, std::span<const std::byte> salt, std::uint32_t iterations);

/// Fills `octets` with what nobody can foresee.
void fillRandomly(std::span<std::byte> octets);

template <std::size_t size>
Octets<size> randomOctets() {
  Octets<size> octets;
  fillRandomly(octets);
  return octets;
}

/// Compares in a time that does not tell where they differ.
bool isSame(std::span<const std::byte, Key::size> one, std::span<const std::byte, Key::size> other);

}  // namespace Nbdd::Reservations
