#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace Nbdd::Discovery {

/// What a server tells of itself in the TXT record of its announcement; empty what it does not tell.
struct ServerText {
  std::string uuid{};  // in lower-case 8-4-4-4-12 form
  std::string version{};
  std::string platform{};
  std::string label{};
  std::string hostName{};

  friend bool operator==(const ServerText&, const ServerText&) = default;
};

/// The strings of a TXT record, "key=value" each (RFC 6763, section 6). None is longer than 255 bytes: longer
/// values are cut.
std::vector<std::string> encodeText(const ServerText& text);

/// Reads what another host announced: keys in any case, the first of each kind counts, what is unknown,
/// malformed, or beyond Limits::discoveryTextStrings is left out. Every value comes out as `displayText`.
ServerText decodeText(std::span<const std::string_view> strings);

/// Text of another host's, fit to be shown and kept: UTF-8 without control characters (those as \xNN), at
/// most `most` bytes of it.
std::string displayText(std::string_view foreign, std::size_t most);

/// The longest beginning of `text` that has at most `most` bytes and ends with a whole character.
std::string_view cutText(std::string_view text, std::size_t most);

}  // namespace Nbdd::Discovery
