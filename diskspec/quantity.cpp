#include "diskspec/quantity.h"

#include <algorithm>
#include <array>
#include <limits>
#include <span>

#include "diskspec/letters.h"

namespace DiskSpec {

namespace {

struct Unit {
  char letter;
  std::uint64_t factor;
};

constexpr std::array sizeUnits{
    Unit{'E', std::uint64_t{1} << 60U}, Unit{'P', std::uint64_t{1} << 50U},
    Unit{'T', std::uint64_t{1} << 40U}, Unit{'G', std::uint64_t{1} << 30U},
    Unit{'M', std::uint64_t{1} << 20U}, Unit{'K', std::uint64_t{1} << 10U},
};

constexpr std::array durationUnits{
    Unit{'w', 7 * 24 * 3600}, Unit{'d', 24 * 3600}, Unit{'h', 3600}, Unit{'m', 60}, Unit{'s', 1},
};

/// The units of a kind, the largest first.
constexpr std::span<const Unit> unitsOf(Kind kind) {
  if (kind == Kind::size) return sizeUnits;
  if (kind == Kind::duration) return durationUnits;
  return {};
}

std::unexpected<Error> fail(ErrorNumber number) { return std::unexpected(Error{number, 0}); }

constexpr bool isDigit(char character) { return character >= '0' && character <= '9'; }

/// The factor that `unit`, the text behind the digits, stands for.
Result<std::uint64_t> factorOf(std::string_view unit, Kind kind) {
  if (kind == Kind::size && !sameLetters(unit, "iB")) {
    for (const std::string_view tail : {"iB", "B"}) {
      if (unit.size() >= tail.size() && sameLetters(unit.substr(unit.size() - tail.size()), tail)) {
        unit.remove_suffix(tail.size());
        break;
      }
    }
  }
  if (unit.empty()) return 1;
  const auto units = unitsOf(kind);
  const auto found = std::ranges::find_if(
      units, [unit](const Unit& row) { return toLower(row.letter) == toLower(unit[0]); });
  if (unit.size() != 1 || found == units.end()) return fail(ErrorNumber::badUnit);
  return found->factor;
}

/// The digits at the front of `text`, which are taken away.
std::string_view takeDigits(std::string_view& text) {
  const auto* const end = std::ranges::find_if_not(text, isDigit);
  const auto length = static_cast<std::size_t>(end - text.begin());
  const std::string_view digits = text.substr(0, length);
  text.remove_prefix(length);
  return digits;
}

__extension__ using Wide = unsigned __int128;

/// `places`, the digits behind the point, times `factor`; nothing if that is no whole number. At most 18
/// digits, so that nothing overflows: 10^18 times 2^60 has 120 bits.
Result<std::uint64_t> wholeOf(std::string_view places, std::uint64_t factor) {
  constexpr std::size_t mostPlaces = 18;
  if (places.empty() || places.size() > mostPlaces) return fail(ErrorNumber::badNumber);
  Wide numerator = 0;
  Wide denominator = 1;
  for (const char digit : places) {
    numerator = numerator * 10 + static_cast<unsigned>(digit - '0');
    denominator *= 10;
  }
  numerator *= factor;
  if (numerator % denominator != 0) return fail(ErrorNumber::badNumber);
  return static_cast<std::uint64_t>(numerator / denominator);
}

}  // namespace

Result<std::uint64_t> readQuantity(std::string_view text, Kind kind) {
  constexpr Wide largest = std::numeric_limits<std::uint64_t>::max();
  const std::string_view digits = takeDigits(text);
  if (digits.empty()) return fail(ErrorNumber::badNumber);
  Wide value = 0;
  for (const char digit : digits) {
    value = value * 10 + static_cast<unsigned>(digit - '0');
    if (value > largest) return fail(ErrorNumber::numberTooLarge);
  }
  std::string_view places;
  const bool hasPlaces = text.starts_with('.');
  if (hasPlaces) {
    text.remove_prefix(1);
    places = takeDigits(text);
  }
  const auto factor = factorOf(text, kind);
  if (!factor) return factor;
  value *= *factor;
  if (hasPlaces) {
    const auto part = wholeOf(places, *factor);
    if (!part) return part;
    value += *part;
  }
  if (value > largest) return fail(ErrorNumber::numberTooLarge);
  return static_cast<std::uint64_t>(value);
}

std::string printQuantity(std::uint64_t value, Kind kind) {
  for (const Unit& unit : unitsOf(kind)) {
    if (value != 0 && unit.factor > 1 && value % unit.factor == 0) {
      return std::to_string(value / unit.factor) + unit.letter;
    }
  }
  return std::to_string(value);
}

}  // namespace DiskSpec
