#pragma once

#include <iosfwd>
#include <optional>
#include <string>
#include <variant>

namespace Nbdd {

/// How the process ends.
enum class ExitCode { success = 0, failure = 1, usage = 2, anotherRuns = 3 };

/// The command line of nbdd.
struct Options {
  bool onDemand = false;
  std::optional<int> readyDescriptor;
  std::optional<std::string> configuration;
  bool checkConfiguration = false;
  /// Run as the responder of another nbdd, which is at the other end of this socket.
  std::optional<int> responderDescriptor;
};

/// Reads the command line. An exit code means that all is said and done: help and version were printed to
/// `out`, or one sentence about what is wrong to `err`.
std::variant<Options, ExitCode> parseOptions(int count, const char* const* words, std::ostream& out,
                                             std::ostream& err);

}  // namespace Nbdd
