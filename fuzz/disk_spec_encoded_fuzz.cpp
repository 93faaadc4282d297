// A DiskSpec expression as another server sends it: whatever the octets, they are an expression that encodes
// to octets that decode to the same, or an error within them.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>

#include "diskspec/expression.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto bytes = std::as_bytes(std::span(data, size));
  const auto decoded = DiskSpec::decode(bytes);
  if (!decoded) {
    if (DiskSpec::sentenceOf(decoded.error().number).empty() || decoded.error().offset > size) {
      std::abort();
    }
    return 0;
  }
  const auto again = DiskSpec::decode(DiskSpec::encode(*decoded));
  if (!again || *again != *decoded) {
    std::abort();
  }
  static_cast<void>(decoded->selects({.name = "vol1", .uuid = "c0ffee00-0000-4000-8000-00000000000a"}));
  return 0;
}
