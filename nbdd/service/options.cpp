#include "nbdd/service/options.h"

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <ostream>

#include "nbdd/log/log.h"
#include "talvek_version.h"

namespace Nbdd {

std::variant<Options, ExitCode> parseOptions(int count, const char* const* words, std::ostream& out,
                                             std::ostream& err) {
  Options options;
  int readyDescriptor = -1;
  int responderDescriptor = -1;
  std::string configuration;
  CLI::App app(
      "Local NBD service: publishes files and block devices as NBD exports. Driven by nbdctl, or by any "
      "Varlink client.",
      "nbdd");
  app.set_version_flag("--version,-V", std::string("nbdd ") + talvekVersion, "Print the version and exit");
  app.set_help_flag("--help,-h", "Print this help and exit");
  app.add_option("--config", configuration, "Read this configuration file")->type_name("FILE");
  app.add_flag("--check-config", options.checkConfiguration,
               "Say whether the configuration is correct and exit");
  app.add_flag("--on-demand", options.onDemand,
               "Log to a file in the state directory, and leave after a while with nothing to do");
  CLI::Option* const ready =
      app.add_option("--ready-fd", readyDescriptor, "Write one byte to this descriptor when ready")
          ->type_name("N")
          ->check(CLI::Range(3, 1'000'000));
  // For nbdd alone, so help does not show it.
  CLI::Option* const responder = app.add_option("--discovery-responder", responderDescriptor)
                                     ->group("")
                                     ->check(CLI::Range(3, 1'000'000));
  try {
    app.parse(count, words);
  } catch (const CLI::Success& done) {
    app.exit(done, out, err);
    return ExitCode::success;
  } catch (const CLI::ParseError& error) {
    err << "nbdd: " << escaped(error.what()) << ": see nbdd --help\n";
    return ExitCode::usage;
  }
  if (ready->count() > 0) options.readyDescriptor = readyDescriptor;
  if (responder->count() > 0) options.responderDescriptor = responderDescriptor;
  if (app.get_option("--config")->count() > 0) {
    if (configuration.empty()) {
      err << "nbdd: --config needs the name of a file: see nbdd --help\n";
      return ExitCode::usage;
    }
    options.configuration = configuration;
  }
  return options;
}

}  // namespace Nbdd
