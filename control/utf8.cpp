#include "control/utf8.h"

#include <cstdint>
#include <cstring>

namespace Control {

namespace {

// What may follow one lead byte: how many continuation bytes, and the range of the first of them, which is
// where overlong forms, surrogates and numbers above U+10FFFF are told apart (Unicode Standard, table 3-7).
struct Sequence {
  std::size_t continuations;
  unsigned char lowest;
  unsigned char highest;
};

constexpr Sequence sequenceOf(unsigned char lead) {
  if (lead >= 0xC2 && lead <= 0xDF) return {1, 0x80, 0xBF};
  if (lead == 0xE0) return {2, 0xA0, 0xBF};
  if (lead == 0xED) return {2, 0x80, 0x9F};
  if (lead >= 0xE1 && lead <= 0xEF) return {2, 0x80, 0xBF};
  if (lead == 0xF0) return {3, 0x90, 0xBF};
  if (lead >= 0xF1 && lead <= 0xF3) return {3, 0x80, 0xBF};
  if (lead == 0xF4) return {3, 0x80, 0x8F};
  return {0, 0, 0};
}

bool eightAscii(const char* bytes) {
  std::uint64_t word = 0;
  std::memcpy(&word, bytes, sizeof word);
  return (word & 0x8080808080808080U) == 0;
}

}  // namespace

std::size_t validUtf8Prefix(std::string_view text) {
  std::size_t position = 0;
  while (position < text.size()) {
    if (text.size() - position >= 8 && eightAscii(text.data() + position)) {
      position += 8;
      continue;
    }
    const auto at = [&](std::size_t offset) { return static_cast<unsigned char>(text[position + offset]); };
    if (at(0) < 0x80) {
      ++position;
      continue;
    }
    const Sequence sequence = sequenceOf(at(0));
    if (sequence.continuations == 0 || text.size() - position <= sequence.continuations) return position;
    if (at(1) < sequence.lowest || at(1) > sequence.highest) return position;
    for (std::size_t offset = 2; offset <= sequence.continuations; ++offset) {
      if (at(offset) < 0x80 || at(offset) > 0xBF) return position;
    }
    position += sequence.continuations + 1;
  }
  return position;
}

}  // namespace Control
