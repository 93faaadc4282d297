// Reading a number: what is taken is digits alone and is written again as the same number; what is refused
// leaves the result alone.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "platform/string_conversion.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(data, data + size);
  constexpr std::uint64_t untouched = 0xA5A5A5A5A5A5A5A5;
  std::uint64_t number = untouched;
  if (!StrConv::num(String::create(std::string_view(text)), &number, nullptr)) {
    if (number != untouched) {
      std::abort();
    }
    return 0;
  }
  if (text.empty() || !std::ranges::all_of(text, [](char byte) { return byte >= '0' && byte <= '9'; })) {
    std::abort();
  }
  const std::string_view significant =
      std::string_view(text).substr(std::min(text.find_first_not_of('0'), text.size() - 1));
  if (StrConv::str(number)->view() != significant) {
    std::abort();
  }
  return 0;
}
