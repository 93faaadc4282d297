#pragma once

#include <cstddef>
#include <cstdint>
#include <expected>
#include <span>
#include <string_view>

namespace DiskSpec {

/// What is wrong with an expression: the number that `nbdctl diskspec` shows and docs/diskspec.md explains. A
/// number is never given a second meaning and never reused. Zero is never an error.
enum class ErrorNumber : std::uint8_t {
  empty = 1,
  textTooLong = 2,
  badCharacter = 3,
  notUtf8 = 4,
  stringNotClosed = 5,
  conditionExpected = 6,
  operatorExpected = 7,
  valueExpected = 8,
  parenthesisNotClosed = 9,
  endExpected = 10,
  listExpected = 11,
  unknownField = 12,
  operatorNotForField = 13,
  badNumber = 14,
  badUnit = 15,
  numberTooLarge = 16,
  badTruthValue = 17,
  badState = 18,
  badPattern = 19,
  badGlob = 20,
  patternTooLarge = 21,
  tooDeep = 22,
  tooManyConditions = 23,
  listTooLong = 24,
  tooManyPatterns = 25,
  unknownEncoding = 26,
};

struct Error {
  ErrorNumber number = ErrorNumber::empty;
  std::size_t offset = 0;  ///< the byte of the text, counted from 0, at which it was noticed

  friend bool operator==(const Error&, const Error&) = default;
};

template <class T>
using Result = std::expected<T, Error>;

/// One row of the table of errors.
struct ErrorDescription {
  ErrorNumber number;
  std::string_view name;      ///< the enumerator's name
  std::string_view sentence;  ///< what is wrong
};

/// Every error once, in ascending order. docs/diskspec.md holds the same rows.
std::span<const ErrorDescription> errorTable();

/// The sentence of `number`.
std::string_view sentenceOf(ErrorNumber number);

}  // namespace DiskSpec
