#include "nbdd/config/configuration.h"

#include <arpa/inet.h>
#include <fmt/core.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <optional>
#include <system_error>
#include <utility>

#include "control/utf8.h"
#include "nbdd/config/read_file.h"
#include "nbdd/config/security_settings.h"
#include "nbdd/config/toml.h"
#include "nbdd/limits.h"
#include "nbdd/log/log.h"

namespace Nbdd {

namespace {

using Failure = std::unexpected<std::string>;

/// Names of network interfaces, as far as anybody gives them such names.
bool isZoneCharacter(char character) {
  return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z') ||
         (character >= '0' && character <= '9') ||
         std::string_view("-_.@:").find(character) != std::string_view::npos;
}

/// The canonical text of a numeric address, its zone kept; nothing if it is none.
std::optional<std::string> canonicalAddress(std::string_view text) {
  const std::size_t percent = text.find('%');
  const std::string address(text.substr(0, percent));
  if (address.size() != std::min(text.size(), percent) || address.find('\0') != std::string::npos) return {};
  std::array<unsigned char, sizeof(in6_addr)> octets{};
  std::array<char, INET6_ADDRSTRLEN> printed{};
  for (const int family : {AF_INET, AF_INET6}) {
    if (::inet_pton(family, address.c_str(), octets.data()) != 1) continue;
    if (::inet_ntop(family, octets.data(), printed.data(), printed.size()) == nullptr) return {};
    if (percent == std::string_view::npos) return printed.data();
    const std::string_view zone = text.substr(percent + 1);
    if (family == AF_INET || zone.empty() || !std::ranges::all_of(zone, isZoneCharacter)) return {};
    return fmt::format("{}%{}", printed.data(), zone);
  }
  return {};
}

std::expected<std::vector<std::string>, std::string> readListen(const toml::node& node,
                                                                std::string_view file) {
  const toml::array* const array = node.as_array();
  if (array == nullptr) {
    return failAt(file, node.source(),
                  "'listen' must be an array of addresses: write listen = [\"192.0.2.1\"]");
  }
  if (array->empty()) {
    return failAt(file, node.source(),
                  "'listen' names no address: take the line out to listen on all, or name one");
  }
  if (array->size() > Limits::listenAddresses) {
    return failAt(file, node.source(),
                  fmt::format("'listen' names more than {} addresses: take the line out to listen on all",
                              Limits::listenAddresses));
  }
  std::vector<std::string> addresses;
  for (const toml::node& element : *array) {
    const std::optional<std::string_view> text = element.value_exact<std::string_view>();
    if (!text) {
      return failAt(file, element.source(), "an address in 'listen' must be a text: put it in quotes");
    }
    std::optional<std::string> address = canonicalAddress(*text);
    if (!address) {
      return failAt(file, element.source(),
                    fmt::format("\"{}\" is no IPv4 or IPv6 address: write it in numbers, without a port",
                                escaped(*text)));
    }
    if (std::ranges::find(addresses, *address) != addresses.end()) {
      return failAt(file, element.source(), fmt::format("{} is listed twice: take one out", *address));
    }
    addresses.push_back(std::move(*address));
  }
  return addresses;
}

std::expected<std::uint16_t, std::string> readPort(const toml::node& node, std::string_view file) {
  const std::optional<std::int64_t> number = node.value_exact<std::int64_t>();
  if (!number || *number < 0 || *number > 65'535) {
    return failAt(file, node.source(),
                  "'port' must be a whole number from 0 to 65535: 10809 is NBD's own, 0 takes any free one");
  }
  return static_cast<std::uint16_t>(*number);
}

std::expected<void, std::string> readServer(const toml::table& table, const TomlSource& source,
                                            Configuration& configuration) {
  const std::string_view file = source.file;
  for (const auto& [key, node] : table) {
    if (key == "listen") {
      auto listen = readListen(node, file);
      if (!listen) return Failure(std::move(listen.error()));
      configuration.listen = std::move(*listen);
    } else if (key == "port") {
      auto port = readPort(node, file);
      if (!port) return Failure(std::move(port.error()));
      configuration.port = *port;
    } else if (key == "allow") {
      auto allow = readAllow(node, source);
      if (!allow) return Failure(std::move(allow.error()));
      configuration.allow = std::move(*allow);
    } else {
      return failAt(
          file, key.source(),
          fmt::format(
              "there is no setting '{}' in [server]: take it out, or write 'listen', 'port' or 'allow'",
              escaped(key.str())));
    }
  }
  return {};
}

bool isLabelCharacter(char character) { return character >= ' ' && character <= '~' && character != '?'; }

std::expected<std::string, std::string> readLabel(const toml::node& node, std::string_view file) {
  constexpr std::size_t longest = 63;  // DNS-SD has no longer names
  const std::optional<std::string_view> text = node.value_exact<std::string_view>();
  if (!text || text->empty() || text->size() > longest || !std::ranges::all_of(*text, isLabelCharacter)) {
    return failAt(
        file, node.source(),
        "'label' must be a text of 1 to 63 ASCII characters, none of them a question mark: shorten or "
        "rewrite it");
  }
  return std::string(*text);
}

std::expected<std::vector<std::string>, std::string> readInterfaces(const toml::node& node,
                                                                    std::string_view file) {
  constexpr std::size_t longest = 15;  // the kernel's bound on names of interfaces
  const toml::array* const array = node.as_array();
  if (array == nullptr || array->empty() || array->size() > Limits::discoveryInterfaces) {
    return failAt(
        file, node.source(),
        fmt::format("'interfaces' must be an array of 1 to {} names: write interfaces = [\"eth0\"], or "
                    "take the line out for all of them",
                    Limits::discoveryInterfaces));
  }
  std::vector<std::string> names;
  for (const toml::node& element : *array) {
    const std::optional<std::string_view> text = element.value_exact<std::string_view>();
    if (!text || text->empty() || text->size() > longest || !std::ranges::all_of(*text, isZoneCharacter)) {
      return failAt(file, element.source(),
                    "this is no name of a network interface: write one as `ip link` shows it");
    }
    names.emplace_back(*text);
  }
  return names;
}

std::expected<std::chrono::seconds, std::string> readTimeToLive(const toml::node& node,
                                                                std::string_view file) {
  const std::optional<std::int64_t> number = node.value_exact<std::int64_t>();
  const std::chrono::seconds time(number.value_or(0));
  if (time < Limits::discoveryTimeToLiveLeast || time > Limits::discoveryTimeToLiveMost) {
    return failAt(
        file, node.source(),
        fmt::format("'time-to-live' must be a whole number of seconds from {} to {}: 120 is usual",
                    Limits::discoveryTimeToLiveLeast.count(), Limits::discoveryTimeToLiveMost.count()));
  }
  return time;
}

std::expected<void, std::string> readDiscovery(const toml::table& table, std::string_view file,
                                               Configuration& configuration) {
  // Stores what was read, or passes on what is wrong with it.
  const auto take = [](auto value, auto& setting) -> std::expected<void, std::string> {
    if (!value) return Failure(std::move(value.error()));
    setting = std::move(*value);
    return {};
  };
  for (const auto& [key, node] : table) {
    std::expected<void, std::string> taken;
    if (key == "enabled") {
      const std::optional<bool> enabled = node.value_exact<bool>();
      if (!enabled) return failAt(file, node.source(), "'enabled' must be true or false, without quotes");
      configuration.discovery = *enabled;
    } else if (key == "label") {
      taken = take(readLabel(node, file), configuration.label);
    } else if (key == "interfaces") {
      taken = take(readInterfaces(node, file), configuration.interfaces);
    } else if (key == "time-to-live") {
      taken = take(readTimeToLive(node, file), configuration.timeToLive);
    } else {
      return failAt(file, key.source(),
                    fmt::format("there is no setting '{}' in [discovery]: take it out, or write 'enabled', "
                                "'label', 'interfaces' or 'time-to-live'",
                                escaped(key.str())));
    }
    if (!taken) return taken;
  }
  return {};
}

std::expected<void, std::string> readReservations(const toml::table& table, std::string_view file,
                                                  Configuration& configuration) {
  for (const auto& [key, node] : table) {
    if (key != "lease") {
      return failAt(file, key.source(),
                    fmt::format("there is no setting '{}' in [reservations]: take it out, or write 'lease'",
                                escaped(key.str())));
    }
    const std::optional<std::int64_t> seconds = node.value_exact<std::int64_t>();
    if (!seconds || *seconds < Limits::shortestLease.count() || *seconds > Limits::longestLease.count()) {
      return failAt(file, node.source(),
                    fmt::format("'lease' must be a whole number of seconds from {} to {}",
                                Limits::shortestLease.count(), Limits::longestLease.count()));
    }
    configuration.lease = std::chrono::seconds(*seconds);
  }
  return {};
}

/// `text` with a question mark for each character beyond ASCII. The library's tables of such characters run
/// into unreachable code for some of them. They matter nowhere but in comments. A value that may hold them
/// has them escaped, and one that does not escape them is refused: see readText.
std::string asciiOnly(std::string_view text) {
  std::string ascii;
  ascii.reserve(text.size());
  for (const char character : text) {
    const auto byte = static_cast<unsigned char>(character);
    const bool continuation = (byte & 0xC0) == 0x80;
    if (byte < 0x80) {
      ascii += character;
    } else if (!continuation) {
      ascii += '?';
    }
  }
  return ascii;
}

/// TOML allows no control characters but tabs and line ends, and only UTF-8. The library's parser asserts on
/// some of what it then meets, so it never gets to see them.
std::expected<void, std::string> checkCharacters(std::string_view text, std::string_view file) {
  const std::size_t valid = Control::validUtf8Prefix(text);
  const auto wrong = std::ranges::find_if(text.substr(0, valid), [](char character) {
    const auto byte = static_cast<unsigned char>(character);
    return (byte < 0x20 && character != '\t' && character != '\n' && character != '\r') || byte == 0x7F;
  });
  const auto at = static_cast<std::size_t>(wrong - text.begin());
  if (at == text.size()) return {};
  const std::string_view before = text.substr(0, at);
  const auto line = std::ranges::count(before, '\n') + 1;
  const std::string_view sameLine = before.substr(before.rfind('\n') + 1);  // npos + 1 is 0: the first line
  const std::size_t column = asciiOnly(sameLine).size() + 1;
  return Failure(fmt::format("{}:{}:{}: there is a character that TOML does not allow: take it out", file,
                             line, column));
}

}  // namespace

std::expected<Configuration, std::string> parseConfiguration(std::string_view text, std::string_view file) {
  if (text.size() > Limits::configurationLength) {
    return Failure(fmt::format("{}: the file is longer than {} bytes: make it shorter", file,
                               Limits::configurationLength));
  }
  if (auto checked = checkCharacters(text, file); !checked) return Failure(std::move(checked.error()));
  const toml::parse_result parsed = toml::parse(asciiOnly(text), file);
  if (!parsed) {
    const toml::parse_error& error = parsed.error();
    return failAt(file, error.source(),
                  fmt::format("this is not TOML ({}): correct it", printable(error.description())));
  }
  Configuration configuration;
  const TomlSource source{.file = file, .text = text};
  for (const auto& [key, node] : parsed.table()) {
    const bool known =
        key == "server" || key == "discovery" || key == "reservations" || key == "tls" || key == "exports";
    if (!known) {
      return failAt(file, key.source(),
                    fmt::format("there is no section or setting '{}': take it out, or put settings in "
                                "[server], [discovery], [reservations], [tls] or [exports.\"name\"]",
                                escaped(key.str())));
    }
    const toml::table* const section = node.as_table();
    if (section == nullptr) {
      return failAt(
          file, node.source(),
          fmt::format("'{}' must be a section: write [{}] above its settings", key.str(), key.str()));
    }
    std::expected<void, std::string> read;
    if (key == "server") {
      read = readServer(*section, source, configuration);
    } else if (key == "discovery") {
      read = readDiscovery(*section, file, configuration);
    } else if (key == "reservations") {
      read = readReservations(*section, file, configuration);
    } else if (key == "tls") {
      read = readTls(*section, source, configuration);
    } else {
      read = readExports(*section, source, configuration);
    }
    if (!read) return Failure(std::move(read.error()));
  }
  return configuration;
}

std::expected<Configuration, std::string> loadConfiguration(const std::filesystem::path& file,
                                                            bool required) {
  const auto text = readFile(file, Limits::configurationLength);
  if (text) return parseConfiguration(*text, file.native());
  if (text.error() == ENOENT && !required) return Configuration{};
  if (text.error() == EFBIG) {
    return Failure(fmt::format("{}: the file is longer than {} bytes: make it shorter", file.native(),
                               Limits::configurationLength));
  }
  return Failure(fmt::format("{}: the configuration cannot be read ({}): correct that, or take the file away",
                             file.native(), std::generic_category().message(text.error())));
}

}  // namespace Nbdd
