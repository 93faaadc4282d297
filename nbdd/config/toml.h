#pragma once

// The library that reads TOML, for the files in this directory alone.
//
// Errors as values. Some of its assertions fail on wrong input that the code behind them reports quite
// properly; in release builds they would even become promises to the compiler. So they are nothing here, in
// every build, and the fuzz target shows that nothing is missing.
#undef NDEBUG
#define TOML_ASSERT(expression) static_cast<void>(0)
#define TOML_EXCEPTIONS 0
#define TOML_ENABLE_FORMATTERS 0
#include <fmt/core.h>
#include <toml++/toml.h>

#include <expected>
#include <string>
#include <string_view>

namespace Nbdd {

/// The configuration as it was read, for messages that point into it.
struct TomlSource {
  std::string_view file;  // how messages call it
  std::string_view text;
};

/// One place in the file, as compilers write it.
inline std::unexpected<std::string> failAt(std::string_view file, const toml::source_region& source,
                                           std::string_view sentence) {
  return std::unexpected(fmt::format("{}:{}:{}: {}", file, source.begin.line, source.begin.column, sentence));
}

}  // namespace Nbdd
