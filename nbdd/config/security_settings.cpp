#include "nbdd/config/security_settings.h"

#include <algorithm>
#include <optional>
#include <utility>
#include <vector>

#include "nbdd/limits.h"
#include "nbdd/log/log.h"

namespace Nbdd {

namespace {

template <class T>
using Read = std::expected<T, std::string>;
using Failure = std::unexpected<std::string>;

/// Whether the lines hold a character beyond ASCII.
bool isBeyondAscii(std::string_view text, toml::source_index first, toml::source_index last) {
  for (toml::source_index number = 1; number <= last && !text.empty(); ++number) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    const bool beyond = std::ranges::any_of(
        text.substr(0, end), [](char byte) { return static_cast<unsigned char>(byte) >= 0x80; });
    if (number >= first && beyond) return true;
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return false;
}

/// What is wrong with a text that was read from `where`; nothing if all is well. Characters beyond ASCII have
/// been read as question marks: a name or path with one would be another than the operator meant.
std::optional<std::string_view> fault(std::string_view text, const toml::source_region& where,
                                      const TomlSource& source) {
  const bool control = std::ranges::any_of(
      text, [](char byte) { return static_cast<unsigned char>(byte) < 0x20 || byte == 0x7F; });
  if (text.empty()) return "this must not be empty: write something, or take the line out";
  if (control) return "this must not hold control characters: take them out";
  const bool replaced = text.find('?') != std::string_view::npos;
  if (replaced && isBeyondAscii(source.text, where.begin.line, std::max(where.begin.line, where.end.line))) {
    return "a character beyond ASCII must be written as \\uXXXX, in double quotes";
  }
  return {};
}

Read<std::string> readText(const toml::node& node, const TomlSource& source) {
  const std::optional<std::string_view> text = node.value_exact<std::string_view>();
  if (!text) return failAt(source.file, node.source(), "this must be a text: put it in quotes");
  if (const auto wrong = fault(*text, node.source(), source))
    return failAt(source.file, node.source(), *wrong);
  return std::string(*text);
}

Read<std::string> readPath(const toml::node& node, const TomlSource& source) {
  auto path = readText(node, source);
  if (path && !path->starts_with('/')) {
    return failAt(source.file, node.source(), "this must be an absolute path: begin it with '/'");
  }
  return path;
}

Read<bool> readSwitch(const toml::node& node, const TomlSource& source) {
  const std::optional<bool> value = node.value_exact<bool>();
  if (!value) return failAt(source.file, node.source(), "this must be true or false");
  return *value;
}

Read<Nbd::TlsMode> readMode(const toml::node& node, const TomlSource& source) {
  const auto word = node.value_exact<std::string_view>().value_or("");
  if (word == "off") return Nbd::TlsMode::off;
  if (word == "allowed") return Nbd::TlsMode::allowed;
  if (word == "required") return Nbd::TlsMode::required;
  return failAt(source.file, node.source(), "'mode' must be \"off\", \"allowed\" or \"required\"");
}

Read<std::vector<std::string>> readClients(const toml::node& node, const TomlSource& source) {
  const toml::array* const array = node.as_array();
  if (array == nullptr || array->empty() || array->size() > Limits::tlsClients) {
    return failAt(source.file, node.source(),
                  fmt::format("'clients' must be an array of 1 to {} names: write clients = [\"alice\"]",
                              Limits::tlsClients));
  }
  std::vector<std::string> names;
  for (const toml::node& element : *array) {
    auto name = readText(element, source);
    if (!name) return Failure(std::move(name.error()));
    names.push_back(std::move(*name));
  }
  return names;
}

/// Takes what was read, or hands the failure on.
template <class T>
Read<void> take(Read<T> read, T& target) {
  if (!read) return Failure(std::move(read.error()));
  target = std::move(*read);
  return {};
}

Read<void> unknownSetting(const toml::key& key, const TomlSource& source, std::string_view section,
                          std::string_view known) {
  return failAt(source.file, key.source(),
                fmt::format("there is no setting '{}' in [{}]: take it out, or write {}", escaped(key.str()),
                            section, known));
}

Read<void> readImportTls(const toml::node& node, const TomlSource& source, Tls::ImportSettings& settings) {
  const toml::table* const table = node.as_table();
  if (table == nullptr) {
    return failAt(source.file, node.source(), "'imports' must be a section: write [tls.imports]");
  }
  for (const auto& [key, value] : *table) {
    Read<void> read;
    if (key == "mode") {
      read = take(readMode(value, source), settings.mode);
    } else if (key == "directory") {
      read = take(readPath(value, source), settings.directory);
    } else if (key == "keys") {
      read = take(readPath(value, source), settings.keys);
    } else if (key == "user") {
      read = take(readText(value, source), settings.user);
    } else if (key == "verify-name") {
      read = take(readSwitch(value, source), settings.verifyName);
    } else {
      read =
          unknownSetting(key, source, "tls.imports", "'mode', 'directory', 'keys', 'user' or 'verify-name'");
    }
    if (!read) return read;
  }
  if (settings.keys.empty() != settings.user.empty()) {
    return failAt(source.file, node.source(),
                  "'keys' and 'user' belong together in [tls.imports]: write both, or none");
  }
  if (!settings.keys.empty() && !settings.directory.empty()) {
    return failAt(source.file, node.source(),
                  "[tls.imports] has certificates and a key: take out 'directory', or 'keys' and 'user'");
  }
  return {};
}

}  // namespace

Read<AllowList> readAllow(const toml::node& node, const TomlSource& source) {
  const toml::array* const array = node.as_array();
  if (array == nullptr || array->empty() || array->size() > Limits::allowedNetworks) {
    return failAt(
        source.file, node.source(),
        fmt::format("'allow' must be an array of 1 to {} networks: write allow = [\"192.0.2.0/24\"]",
                    Limits::allowedNetworks));
  }
  AllowList list;
  for (const toml::node& element : *array) {
    const auto text = readText(element, source);
    if (!text) return Failure(text.error());
    const std::optional<Network> network = Network::parse(*text);
    if (!network) {
      return failAt(
          source.file, element.source(),
          fmt::format("\"{}\" is no network: write an address, or one with the length of its prefix and "
                      "no bits set behind it, as 192.0.2.0/24",
                      escaped(*text)));
    }
    list.push_back(*network);
  }
  return list;
}

Read<void> readTls(const toml::table& table, const TomlSource& source, Configuration& configuration) {
  Tls::ServerSettings& settings = configuration.tls;
  const toml::node* demanded = nullptr;
  for (const auto& [key, value] : table) {
    Read<void> read;
    if (key == "mode") {
      read = take(readMode(value, source), settings.mode);
    } else if (key == "directory") {
      read = take(readPath(value, source), settings.directory);
    } else if (key == "keys") {
      read = take(readPath(value, source), settings.keys);
    } else if (key == "client-certificates") {
      demanded = &value;
      read = take(readSwitch(value, source), settings.clientCertificates);
    } else if (key == "clients") {
      read = take(readClients(value, source), settings.clients);
    } else if (key == "imports") {
      read = readImportTls(value, source, configuration.importTls);
    } else {
      read = unknownSetting(key, source, "tls",
                            "'mode', 'directory', 'keys', 'client-certificates' or 'clients', or put "
                            "settings in [tls.imports]");
    }
    if (!read) return read;
  }
  if (settings.mode != Nbd::TlsMode::off && settings.directory.empty() && settings.keys.empty()) {
    return failAt(
        source.file, table.source(),
        "[tls] has nothing to prove the server with: write 'directory', where its certificate is, or 'keys'");
  }
  if (demanded != nullptr && !settings.clientCertificates && !settings.clients.empty()) {
    return failAt(source.file, demanded->source(),
                  "the clients that may come are named, so they must prove who they are: take this line out");
  }
  return {};
}

Read<void> readExports(const toml::table& table, const TomlSource& source, Configuration& configuration) {
  for (const auto& [name, node] : table) {
    if (const auto wrong = fault(name.str(), name.source(), source)) {
      return failAt(source.file, name.source(), *wrong);
    }
    const toml::table* const section = node.as_table();
    if (section == nullptr || !section->contains("allow")) {
      return failAt(
          source.file, name.source(),
          "an export's section holds its allow list: write [exports.\"name\"] and allow = [...] in it");
    }
    for (const auto& [key, value] : *section) {
      if (key != "allow") return unknownSetting(key, source, "exports.\"name\"", "'allow'");
      auto list = readAllow(value, source);
      if (!list) return Failure(std::move(list.error()));
      if (configuration.exportAllow.size() == Limits::restrictedExports) {
        return failAt(source.file, name.source(),
                      fmt::format("more than {} exports have an allow list: let a firewall do it",
                                  Limits::restrictedExports));
      }
      configuration.exportAllow.emplace(std::string(name.str()), std::move(*list));
    }
  }
  return {};
}

}  // namespace Nbdd
