#pragma once

#include <expected>
#include <string>

#include "nbdd/config/configuration.h"
#include "nbdd/config/network.h"
#include "nbdd/config/toml.h"

namespace Nbdd {

// The parts of the configuration that say who may come and how connections are secured. A failure is one
// sentence with file, line and column that says what to do.

/// An allow list: an array of networks.
std::expected<AllowList, std::string> readAllow(const toml::node& node, const TomlSource& source);

/// The section [tls], and [tls.imports] in it.
std::expected<void, std::string> readTls(const toml::table& table, const TomlSource& source,
                                         Configuration& configuration);

/// The sections [exports."name"].
std::expected<void, std::string> readExports(const toml::table& table, const TomlSource& source,
                                             Configuration& configuration);

}  // namespace Nbdd
