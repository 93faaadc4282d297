#pragma once

#include <cstddef>
#include <string_view>

namespace Control {

/// The length of the longest prefix of `text` that is well-formed UTF-8 (RFC 3629: no overlong forms, no
/// surrogates, nothing above U+10FFFF).
std::size_t validUtf8Prefix(std::string_view text);

inline bool isUtf8(std::string_view text) { return validUtf8Prefix(text) == text.size(); }

}  // namespace Control
