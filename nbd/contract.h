#pragma once

#include <concepts>
#include <cstdint>
#include <cstdlib>
#include <utility>

namespace Nbd {

/// A promise between two pieces of this program, checked in every build: going on with a broken one would put
/// wrong bytes on the wire. Never for anything that a peer can bring about.
constexpr void require(bool promise) {
  if (!promise) [[unlikely]] {
    std::abort();
  }
}

/// `value` in fewer bits, which the caller knows to be enough.
template <std::unsigned_integral Narrow>
[[nodiscard]] constexpr Narrow narrow(std::uint64_t value) {
  require(std::in_range<Narrow>(value));
  return static_cast<Narrow>(value);
}

}  // namespace Nbd
