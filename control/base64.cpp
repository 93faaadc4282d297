#include "control/base64.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace Control {

namespace {

constexpr std::string_view alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::uint8_t noDigit = 0xFF;

constexpr std::array<std::uint8_t, 256> digits = [] {
  std::array<std::uint8_t, 256> values{};
  values.fill(noDigit);
  for (std::size_t index = 0; index < alphabet.size(); ++index) {
    values[static_cast<unsigned char>(alphabet[index])] = static_cast<std::uint8_t>(index);
  }
  return values;
}();

}  // namespace

std::string toBase64(std::string_view octets) {
  std::string text;
  text.reserve((octets.size() + 2) / 3 * 4);
  for (std::size_t position = 0; position < octets.size(); position += 3) {
    const std::size_t count = std::min<std::size_t>(3, octets.size() - position);
    std::uint32_t group = 0;
    for (std::size_t index = 0; index < 3; ++index) {
      group = group << 8U | (index < count ? static_cast<unsigned char>(octets[position + index]) : 0U);
    }
    for (std::size_t index = 0; index < 4; ++index) {
      text += index <= count ? alphabet[group >> (18U - 6U * index) & 0x3FU] : '=';
    }
  }
  return text;
}

std::optional<std::string> fromBase64(std::string_view text) {
  if (text.size() % 4 != 0) return std::nullopt;
  const std::size_t padding = text.ends_with("==") ? 2 : text.ends_with('=') ? 1 : 0;
  std::string octets;
  octets.reserve(text.size() / 4 * 3);
  std::uint32_t bits = 0;
  unsigned held = 0;
  for (const char character : text.substr(0, text.size() - padding)) {
    const std::uint8_t digit = digits[static_cast<unsigned char>(character)];
    if (digit == noDigit) return std::nullopt;
    bits = bits << 6U | digit;
    held += 6;
    if (held >= 8) {
      held -= 8;
      octets += static_cast<char>(bits >> held & 0xFFU);
    }
  }
  const bool unusedBits = (bits & ((1U << held) - 1U)) != 0;
  if (unusedBits || held / 2 != padding) return std::nullopt;
  return octets;
}

}  // namespace Control
