#pragma once

#include <cstddef>
#include <expected>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace Nbdd::Tls {

/// Pre-shared keys by the names of those who hold them.
using Keys = std::map<std::string, std::vector<std::byte>, std::less<>>;

/// Reads the text of a file of keys: lines "name:key", the key in hexadecimal, as psktool writes them; empty
/// lines and lines that begin with '#' say nothing. The failure is a sentence with the number of the line,
/// and quotes no key.
std::expected<Keys, std::string> parseKeys(std::string_view text);

}  // namespace Nbdd::Tls
