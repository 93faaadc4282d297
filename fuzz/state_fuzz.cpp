// The state file's text: whatever is taken is printed and read again as the same.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "nbdd/state/saved_state.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const auto state = Nbdd::parseState(text);
  if (!state) {
    if (state.error().empty()) std::abort();
    return 0;
  }
  if (Nbdd::parseState(Nbdd::printState(*state)) != *state) std::abort();
  return 0;
}
