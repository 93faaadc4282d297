#pragma once

#include <algorithm>
#include <string>
#include <string_view>

/// Letter case in ASCII, whatever the process's locale.
namespace DiskSpec {

constexpr char toLower(char character) {
  return character >= 'A' && character <= 'Z' ? static_cast<char>(character - 'A' + 'a') : character;
}

inline std::string lowered(std::string_view text) {
  std::string result(text);
  std::ranges::transform(result, result.begin(), toLower);
  return result;
}

/// Whether both texts are the same but for letter case.
constexpr bool sameLetters(std::string_view one, std::string_view other) {
  return std::ranges::equal(one, other, {}, toLower, toLower);
}

}  // namespace DiskSpec
