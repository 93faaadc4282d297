#include "platform/char_printer.h"

#include <array>
#include <charconv>
#include <utility>

namespace {

/// Room for a number of 64 bits in decimal, the longest that is printed.
constexpr std::size_t maxDigits = 20;

}  // namespace

Ref<CharPrinter> CharPrinter::printText(const char* text) { return put(text); }

Ref<CharPrinter> CharPrinter::printString(const Ref<String>& string) {
  return put(string ? string->view() : std::string_view());
}

Ref<CharPrinter> CharPrinter::printU64(std::uint64_t number) { return putNumber(number); }

Ref<CharPrinter> CharPrinter::printU32(std::uint32_t number) { return putNumber(number); }

Ref<CharPrinter> CharPrinter::printU16(std::uint16_t number) { return putNumber(number); }

Ref<CharPrinter> CharPrinter::printChar(char character) { return put(std::string_view(&character, 1)); }

Ref<CharPrinter> CharPrinter::printBool(bool value) { return put(value ? "true" : "false"); }

Ref<CharPrinter> CharPrinter::hex() {
  hexNext_ = true;
  return Ref<CharPrinter>(this);
}

Ref<CharPrinter> CharPrinter::endLine() { return put("\n"); }

Ref<CharPrinter> CharPrinter::put(std::string_view bytes) {
  hexNext_ = false;
  write(bytes);
  return Ref<CharPrinter>(this);
}

Ref<CharPrinter> CharPrinter::putNumber(std::uint64_t number) {
  const int base = hexNext_ ? 16 : 10;
  std::array<char, maxDigits> digits;
  const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), number, base).ptr;
  for (char* digit = digits.data(); digit != end; ++digit) {
    if (*digit >= 'a') {
      *digit = static_cast<char>(*digit - 'a' + 'A');
    }
  }
  return put(std::string_view(digits.data(), end));
}

Ref<StringPrinter> StringPrinter::create() { return makeRef<StringPrinter>(); }

Ref<String> StringPrinter::text() const { return String::create(std::string_view(collected_)); }

void StringPrinter::write(std::string_view bytes) { collected_ += bytes; }
