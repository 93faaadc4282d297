#pragma once

#include <cstdlib>

namespace Nbd {

/// A promise between two pieces of this program, checked in every build: going on with a broken one would put
/// wrong bytes on the wire. Never for anything that a peer can bring about.
constexpr void require(bool promise) {
  if (!promise) [[unlikely]] {
    std::abort();
  }
}

}  // namespace Nbd
