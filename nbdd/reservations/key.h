#pragma once

#include <string.h>

#include <array>
#include <cstddef>
#include <span>
#include <string>
#include <string_view>

namespace Nbdd::Reservations {

/// Octets that are nobody's secret: nonces, names of leases, proofs.
template <std::size_t size>
using Octets = std::array<std::byte, size>;

/// 32 octets that must not leak: keys, and what they are made of. Wiped when they end.
class Key {
 public:
  static constexpr std::size_t size = 32;

  Key() = default;
  explicit Key(std::span<const std::byte, size> octets) { copy(octets); }
  Key(const Key& other) { copy(other.octets_); }
  Key& operator=(const Key& other) {
    if (this != &other) copy(other.octets_);
    return *this;
  }
  ~Key() { ::explicit_bzero(octets_.data(), octets_.size()); }

  std::span<const std::byte, size> octets() const { return octets_; }
  std::span<std::byte, size> octets() { return octets_; }

  /// For tests and for comparing what was saved; proofs are compared by `isSame`.
  friend bool operator==(const Key& one, const Key& other) { return one.octets_ == other.octets_; }

 private:
  void copy(std::span<const std::byte, size> octets) {
    for (std::size_t index = 0; index < size; ++index) octets_[index] = octets[index];
  }

  Octets<size> octets_{};
};

/// The octets as characters, for libraries and files that want them so.
inline std::string_view asText(std::span<const std::byte> octets) {
  return {reinterpret_cast<const char*>(octets.data()), octets.size()};
}

}  // namespace Nbdd::Reservations
