// A file of pre-shared keys: taken within the limits, or refused in one clean line that names the line.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "nbdd/limits.h"
#include "nbdd/tls/key_file.h"

namespace {

void expect(bool promise) {
  if (!promise) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto keys = Nbdd::Tls::parseKeys({reinterpret_cast<const char*>(data), size});
  if (!keys) {
    expect(keys.error().starts_with("line ") && std::ranges::all_of(keys.error(), [](char byte) {
             return static_cast<unsigned char>(byte) >= 0x20 && static_cast<unsigned char>(byte) < 0x7F;
           }));
    return 0;
  }
  expect(keys->size() <= Nbdd::Limits::tlsKeys);
  for (const auto& [name, key] : *keys) {
    expect(!name.empty() && name.size() <= Nbdd::Limits::tlsNameLength);
    expect(key.size() >= Nbdd::Limits::tlsKeyShortest && key.size() <= Nbdd::Limits::tlsKeyLongest);
  }
  return 0;
}
