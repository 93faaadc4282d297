#include "bench/load/target.h"

#include <netdb.h>

#include <charconv>
#include <cstring>
#include <memory>
#include <optional>

namespace Bench {

namespace {

constexpr std::string_view scheme = "nbd://";
constexpr std::string_view standardPort = "10809";

std::optional<std::string> percentDecoded(std::string_view text) {
  std::string decoded;
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (text[at] != '%') {
      decoded += text[at];
      continue;
    }
    const std::string_view digits = text.substr(at + 1, 2);
    unsigned value = 0;
    const auto [end, error] = std::from_chars(digits.begin(), digits.end(), value, 16);
    if (digits.size() < 2 || error != std::errc() || end != digits.end()) {
      return std::nullopt;
    }
    decoded += static_cast<char>(value);
    at += 2;
  }
  return decoded;
}

}  // namespace

std::expected<Target, std::string> parseTarget(std::string_view uri) {
  const std::string whole(uri);
  if (!uri.starts_with(scheme)) {
    return std::unexpected(whole + " is no URI of the form nbd://HOST[:PORT]/[NAME]");
  }
  uri.remove_prefix(scheme.size());
  const std::size_t slash = uri.find('/');
  std::string_view host = uri.substr(0, slash);
  std::string_view port = standardPort;
  const std::size_t hostEnd = host.find(']') == std::string_view::npos ? 0 : host.find(']');
  if (const std::size_t colon = host.find(':', hostEnd); colon != std::string_view::npos) {
    port = host.substr(colon + 1);
    host = host.substr(0, colon);
  }
  if (host.starts_with('[') && host.ends_with(']')) {
    host = host.substr(1, host.size() - 2);
  }

  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (const int error = ::getaddrinfo(std::string(host).c_str(), std::string(port).c_str(), &hints, &found);
      error != 0) {
    return std::unexpected(whole + ": " + ::gai_strerror(error));
  }
  const std::unique_ptr<addrinfo, void (*)(addrinfo*)> owner(found, &::freeaddrinfo);
  Target target;
  std::memcpy(&target.address, found->ai_addr, found->ai_addrlen);
  target.addressLength = found->ai_addrlen;
  const std::string_view name = slash == std::string_view::npos ? "" : uri.substr(slash + 1);
  std::optional<std::string> decoded = percentDecoded(name);
  if (!decoded) {
    return std::unexpected(whole + " has a percent sign without two hexadecimal digits");
  }
  target.exportName = std::move(*decoded);
  return target;
}

}  // namespace Bench
