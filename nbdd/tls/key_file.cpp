#include "nbdd/tls/key_file.h"

#include <fmt/core.h>

#include <charconv>
#include <optional>
#include <utility>

#include "nbdd/limits.h"

namespace Nbdd::Tls {

namespace {

std::optional<std::vector<std::byte>> fromHexadecimal(std::string_view digits) {
  if (digits.empty() || digits.size() % 2 != 0) return std::nullopt;
  std::vector<std::byte> bytes;
  bytes.reserve(digits.size() / 2);
  for (std::size_t at = 0; at < digits.size(); at += 2) {
    unsigned char value = 0;
    const char* const end = digits.data() + at + 2;
    const auto [stopped, error] = std::from_chars(digits.data() + at, end, value, 16);
    if (error != std::errc{} || stopped != end) return std::nullopt;
    bytes.push_back(std::byte{value});
  }
  return bytes;
}

std::unexpected<std::string> failAt(std::size_t line, std::string_view what) {
  return std::unexpected(fmt::format("line {}: {}", line, what));
}

}  // namespace

std::expected<Keys, std::string> parseKeys(std::string_view text) {
  Keys keys;
  for (std::size_t number = 1; !text.empty(); ++number) {
    const std::size_t end = text.find('\n');
    std::string_view line = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    if (line.ends_with('\r')) line.remove_suffix(1);
    if (line.empty() || line.starts_with('#')) continue;
    const std::size_t colon = line.rfind(':');
    if (colon == std::string_view::npos || colon == 0) {
      return failAt(number, "it must be a name, a colon and a key, as psktool writes it");
    }
    const std::string_view name = line.substr(0, colon);
    if (name.size() > Limits::tlsNameLength || name.find('\0') != std::string_view::npos) {
      return failAt(number, fmt::format("the name must be of at most {} bytes", Limits::tlsNameLength));
    }
    auto key = fromHexadecimal(line.substr(colon + 1));
    if (!key || key->size() < Limits::tlsKeyShortest || key->size() > Limits::tlsKeyLongest) {
      return failAt(number, fmt::format("the key must be of {} to {} bytes in hexadecimal",
                                        Limits::tlsKeyShortest, Limits::tlsKeyLongest));
    }
    if (keys.size() == Limits::tlsKeys) {
      return failAt(number, fmt::format("there are more than {} keys", Limits::tlsKeys));
    }
    if (!keys.emplace(std::string(name), std::move(*key)).second) {
      return failAt(number, "the name has a key already");
    }
  }
  return keys;
}

}  // namespace Nbdd::Tls
