#include "server/discovery.h"

#include <cstddef>
#include <memory>

#include "platform/disk_spec.h"
#include "platform/error.h"
#include "server/variant_access.h"
#include "server/variant_printer.h"
#include "shell/addresses.h"
#include "shell/command_table.h"
#include "shell/handler_steps.h"
#include "shell/output.h"

namespace Server {

namespace {

using namespace Services::NBD::Client::Types;
using Libraries::DiskSpec::Expression;
using Libraries::DiskSpec::Parser;
using Services::NBD::Client::Service;
using Shell::output;

using Servers = std::vector<RemoteServerDescriptor>;

/// The properties of a server stand one level below it.
constexpr std::int32_t propertyDepth = 1;
constexpr const char* serverIndent = "  ";

void printServerCount(const Servers& servers) {
  output()->printText("Remote servers: ")->printU64(servers.size())->endLine();
}

/// Begins the line of the server at `index`.
void printServer(const Servers& servers, std::size_t index) {
  output()
      ->printText("  Server ")
      ->printU64(index + 1)
      ->printText(": ")
      ->printString(Shell::formatEndpoint(servers[index].endpoint));
}

/// Runs `print` for each index, with an empty line between two servers.
template <class Print>
void forEachServer(const Servers& servers, Print print) {
  for (std::size_t index = 0; index < servers.size(); ++index) {
    if (index > 0) {
      output()->endLine();
    }
    print(index);
  }
}

/// Prints the first property alone, and an empty one for a server that has none.
void printFirstProperty(const Variant& properties) {
  const VariantEntry first = properties.count() > 0 ? entryAt(properties, 0) : VariantEntry();
  printVariantEntry(first, propertyDepth, serverIndent);
}

void printMatches(const std::vector<RemoteExportEntry>& exports) {
  if (exports.empty()) {
    output()->printText("    <no matches>")->endLine();
  }
  for (std::size_t index = 0; index < exports.size(); ++index) {
    output()
        ->printText("    ")
        ->printU64(index + 1)
        ->printText(": ")
        ->printString(exports[index].name)
        ->endLine();
  }
}

/// Has one server select among its exports, and prints what came of it. The service keeps the expression it
/// is given, so it is given one of its own.
void select(Service& service, const IPEndpoint& server, const Expression& expression) {
  const auto list = service.fetchRemoteExports(server, expression.clone());
  if (!list) {
    const std::uint32_t code = Error::get();
    output()->printText("    Error: ")->printU32(code)->endLine();
    return;
  }
  printMatches(list->exports);
}

/// The second half of `diskspec`: finds the servers and asks each.
int selectOnAllServers(Service& service, const Expression& expression) {
  output()->printText("Discovering servers... ");
  Servers servers;
  if (!service.serverDiscover(servers)) {
    output()->printText("FAIL!")->endLine();
    return Shell::failed;
  }
  output()->printText("OK!")->endLine();
  if (servers.empty()) {
    output()->printText("No servers available!\n");
    return Shell::succeeded;
  }
  output()->endLine();
  printServerCount(servers);
  forEachServer(servers, [&](std::size_t index) {
    printServer(servers, index);
    output()->endLine();
    printFirstProperty(servers[index].properties);
  });
  output()->endLine();
  output()->printText("Sending DiskSpec to servers...\n");
  forEachServer(servers, [&](std::size_t index) {
    printServer(servers, index);
    output()->endLine();
    select(service, servers[index].endpoint, expression);
  });
  return Shell::succeeded;
}

}  // namespace

int discover(Ref<Service> service, std::vector<Ref<String>> words) {
  if (!words.empty()) {
    return Shell::refuseWordsInOpenLine("unexpected arguments");
  }
  output()->printText("Discovering remote servers... ");
  Servers servers;
  if (!service->serverDiscover(servers)) {
    output()->printText("failed!")->endLine();
    return Shell::failed;
  }
  output()->printText("OK!")->endLine();
  printServerCount(servers);
  forEachServer(servers, [&](std::size_t index) {
    printServer(servers, index);
    output()->printText(" (")->printString(servers[index].label)->printText(")")->endLine();
    const Variant& properties = servers[index].properties;
    for (std::uint64_t property = 0; property < properties.count(); ++property) {
      printVariantEntry(entryAt(properties, property), propertyDepth, serverIndent);
    }
  });
  return Shell::succeeded;
}

int diskspec(Ref<Service> service, std::vector<Ref<String>> words) {
  if (words.size() != 1) {
    return Shell::refuseWordsInOpenLine("unexpected arguments");
  }
  output()->printText("Discovering exports via DiskSpec: ")->printString(words[0])->endLine();
  output()->printText("Compiling expression... ");
  const std::unique_ptr<Parser> parser = Parser::parse(words[0], Parser::Settings{.lenient = false});
  if (!parser->succeeded()) {
    output()->printText("FAILED (")->printU32(parser->failure().number)->printText(")\n");
    return Shell::failed;
  }
  const std::unique_ptr<Expression> expression = parser->takeExpression();
  output()->printText("OK!\n");
  return selectOnAllServers(*service, *expression);
}

}  // namespace Server
