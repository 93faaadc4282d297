#include "nbd/bytes.h"

#include <algorithm>

#include "nbd/limits.h"

namespace Nbd {

namespace {

bool isContinuation(char unit) { return (static_cast<unsigned char>(unit) & 0xc0) == 0x80; }

// How many bytes the well-formed character at the front of `text` (not empty) takes; 0 if there is none. The
// bounds of the second byte rule out overlong forms, surrogates and what lies above U+10FFFF (Unicode, table
// 3-7).
std::size_t characterLength(std::string_view text) {
  const auto first = static_cast<unsigned char>(text[0]);
  if (first < 0x80) return 1;
  std::size_t length = 0;
  unsigned char low = 0x80;
  unsigned char high = 0xbf;
  if (first >= 0xc2 && first <= 0xdf) {
    length = 2;
  } else if (first >= 0xe0 && first <= 0xef) {
    length = 3;
    if (first == 0xe0) low = 0xa0;
    if (first == 0xed) high = 0x9f;
  } else if (first >= 0xf0 && first <= 0xf4) {
    length = 4;
    if (first == 0xf0) low = 0x90;
    if (first == 0xf4) high = 0x8f;
  } else {
    return 0;
  }
  if (text.size() < length) return 0;
  const auto second = static_cast<unsigned char>(text[1]);
  if (second < low || second > high) return 0;
  const std::string_view rest = text.substr(2, length - 2);
  return std::all_of(rest.begin(), rest.end(), isContinuation) ? length : 0;
}

}  // namespace

bool isUtf8(std::string_view text) {
  while (!text.empty()) {
    const std::size_t length = characterLength(text);
    if (length == 0) return false;
    text.remove_prefix(length);
  }
  return true;
}

bool isWireString(std::string_view text) {
  return text.size() <= maxStringLength && text.find('\0') == std::string_view::npos && isUtf8(text);
}

std::string_view truncateUtf8(std::string_view text, std::size_t limit) {
  if (text.size() <= limit) return text;
  while (limit > 0 && isContinuation(text[limit])) --limit;
  return text.substr(0, limit);
}

}  // namespace Nbd
