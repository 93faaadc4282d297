#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace Control {

/// Octets as text (RFC 4648, section 4, with padding).
std::string toBase64(std::string_view octets);

/// The octets of a text of that form; nothing for any other text, also where only padding or unused bits are
/// wrong, so that no octets have two spellings.
std::optional<std::string> fromBase64(std::string_view text);

}  // namespace Control
