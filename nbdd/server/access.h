#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "nbd/constants.h"
#include "nbdd/config/network.h"
#include "nbdd/tls/credentials.h"

namespace Nbdd {

/// Who may come to the server, and how connections are secured. Immutable; replaced as a whole when the
/// configuration is read again. A connection keeps to what held when it came.
struct Access {
  Nbd::TlsMode tls = Nbd::TlsMode::off;
  std::shared_ptr<const Tls::Credentials> credentials;  // not null unless TLS is off
  AllowList networks;
  std::map<std::string, AllowList, std::less<>> exports;  // those with a list of their own, by their names

  /// Whether a client from there may come at all. One whose address is unknown is from nowhere.
  bool admits(const std::optional<HostAddress>& client) const { return isIn(networks, client); }
  /// Whether it may use the export, once it has come.
  bool admits(const std::optional<HostAddress>& client, std::string_view exportName) const {
    const auto own = exports.find(exportName);
    return own == exports.end() || isIn(own->second, client);
  }

 private:
  static bool isIn(const AllowList& list, const std::optional<HostAddress>& client) {
    return list.empty() || (client && Nbdd::admits(list, *client));
  }
};

/// A client as the allow lists know it. May be copied and asked on any thread.
struct Visitor {
  std::shared_ptr<const Access> access;  // never null
  std::optional<HostAddress> address;    // nothing if it is unknown

  /// Whether it may use the export, and learns of it.
  bool sees(std::string_view exportName) const { return access->admits(address, exportName); }
  /// Whether it sees all exports, whatever their names.
  bool seesAll() const { return access->exports.empty(); }
};

}  // namespace Nbdd
