#pragma once

#include <cstdint>

#include "platform/string.h"

/// Numbers from and to text.
namespace StrConv {

/// Reads `text` as an unsigned decimal number: one or more of the digits 0 to 9 and nothing else, with a
/// value that fits 64 bits. Signs, blanks, base prefixes, digit separators and the empty text are refused;
/// leading zeros are not. True with the value in `*number`, or false with `*number` untouched.
///
/// `prefix` is text that has to stand before the digits; an empty Ref means none.
[[nodiscard]] bool num(const Ref<String>& text, std::uint64_t* number, const Ref<String>& prefix);

/// `number` in decimal, without padding.
[[nodiscard]] Ref<String> str(std::uint64_t number);

}  // namespace StrConv
