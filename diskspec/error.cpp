#include "diskspec/error.h"

#include <algorithm>
#include <array>

namespace DiskSpec {

namespace {

using enum ErrorNumber;

constexpr std::array table{
    ErrorDescription{empty, "empty", "The expression is empty."},
    ErrorDescription{textTooLong, "textTooLong",
                     "The expression, as it is or in its canonical spelling, is longer than 8192 bytes."},
    ErrorDescription{badCharacter, "badCharacter", "A character that has no meaning here; quote it."},
    ErrorDescription{notUtf8, "notUtf8", "The expression is not valid UTF-8."},
    ErrorDescription{stringNotClosed, "stringNotClosed", "A quoted text has no closing quote."},
    ErrorDescription{conditionExpected, "conditionExpected",
                     "A condition is expected: a field, `not` or an opening parenthesis."},
    ErrorDescription{operatorExpected, "operatorExpected", "An operator is expected behind this field."},
    ErrorDescription{valueExpected, "valueExpected", "A value is expected behind an operator."},
    ErrorDescription{parenthesisNotClosed, "parenthesisNotClosed",
                     "A parenthesis is not closed: `and`, `or` or `)` is expected."},
    ErrorDescription{endExpected, "endExpected", "`and`, `or` or the end is expected."},
    ErrorDescription{listExpected, "listExpected",
                     "A list is expected: `[`, values with commas between them, `]`."},
    ErrorDescription{unknownField, "unknownField", "There is no such field."},
    ErrorDescription{operatorNotForField, "operatorNotForField",
                     "The operator does not fit the kind of field."},
    ErrorDescription{badNumber, "badNumber", "A whole number is expected, or one that its unit makes whole."},
    ErrorDescription{badUnit, "badUnit",
                     "The unit is unknown: sizes have K, M, G, T, P or E, times s, m, h, d or w."},
    ErrorDescription{numberTooLarge, "numberTooLarge", "The number is larger than 2^64-1."},
    ErrorDescription{badTruthValue, "badTruthValue", "`true` or `false` is expected."},
    ErrorDescription{badState, "badState",
                     "A state is expected: added, enabled, disabling, disabled or failed."},
    ErrorDescription{badPattern, "badPattern", "The pattern is no regular expression of RE2."},
    ErrorDescription{badGlob, "badGlob", "The glob has a bracket that is not closed or holds no characters."},
    ErrorDescription{patternTooLarge, "patternTooLarge",
                     "The pattern is longer than 512 bytes, has a repetition that is not possible, or needs "
                     "too much memory."},
    ErrorDescription{tooDeep, "tooDeep", "More than 64 parentheses and negations within each other."},
    ErrorDescription{tooManyConditions, "tooManyConditions", "More than 512 conditions and operators."},
    ErrorDescription{listTooLong, "listTooLong", "A list has more than 256 values."},
    ErrorDescription{tooManyPatterns, "tooManyPatterns", "More than 32 patterns."},
    ErrorDescription{unknownEncoding, "unknownEncoding",
                     "Another server sent the expression in a form that this version does not know."},
};

}  // namespace

std::span<const ErrorDescription> errorTable() { return table; }

std::string_view sentenceOf(ErrorNumber number) {
  const auto* const row = std::ranges::find(table, number, &ErrorDescription::number);
  return row == table.end() ? std::string_view() : row->sentence;
}

}  // namespace DiskSpec
