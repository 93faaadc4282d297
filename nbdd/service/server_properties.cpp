#include "nbdd/service/server_properties.h"

#include <fmt/core.h>
#include <sys/resource.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <utility>

#include "control/limits.h"
#include "nbd/limits.h"
#include "nbdd/limits.h"
#include "nbdd/log/log.h"
#include "talvek_version.h"

namespace Nbdd {

namespace {

using Control::Variant;

std::string activityText(ServerActivity activity) {
  switch (activity) {
    case ServerActivity::stopped:
      return "stopped";
    case ServerActivity::listening:
      return "started";
    case ServerActivity::waiting:
      return "waiting for its address or port";
    case ServerActivity::stopping:
      return "stopping";
  }
  std::unreachable();
}

std::string tlsText(Nbd::TlsMode mode) {
  switch (mode) {
    case Nbd::TlsMode::off:
      return "off";
    case Nbd::TlsMode::allowed:
      return "allowed";
    case Nbd::TlsMode::required:
      return "required";
  }
  std::unreachable();
}

Variant listeningAddresses(const ServerFacts& server) {
  Variant addresses;
  for (const Control::Endpoint& endpoint : server.listening)
    addresses.push_back({"address", endpoint.address});
  return addresses;
}

Variant reachableAddresses(const ServerFacts& server) {
  Variant addresses;
  for (const Control::NetIfFirewallState& state : server.reachableAt)
    addresses.push_back({state.interface.value_or("address"), state.endpoint.address});
  return addresses;
}

Variant exportCounts(const ServerFacts& server) {
  return {{"held", std::uint64_t{server.exports}},
          {"served", std::uint64_t{server.servedExports}},
          {"clients", std::uint64_t{server.clients}}};
}

Variant importCounts(const ServerFacts& server) {
  return {{"held", std::uint64_t{server.imports}}, {"enabled", std::uint64_t{server.usedImports}}};
}

Variant limits(const HostFacts& host) {
  return {{"exports", std::uint64_t{Limits::exports}},
          {"imports", std::uint64_t{Limits::imports}},
          {"connections", std::uint64_t{Limits::connections}},
          {"control connections", std::uint64_t{Control::Limits::connections}},
          {"bytes of one request", std::uint64_t{Nbd::maxPayload}},
          {"waiting requests of one connection", std::uint64_t{Limits::requestsInFlight}},
          {"waiting bytes of one connection", std::uint64_t{Limits::connectionPayload}},
          {"waiting bytes of one event loop", std::uint64_t{Limits::workerPayload}},
          {"handshake seconds", static_cast<std::uint64_t>(Limits::handshakeTime.count())},
          {"open files", host.openFiles}};
}

}  // namespace

HostFacts hostFacts() {
  HostFacts facts{.process = static_cast<std::uint64_t>(::getpid())};
  utsname system{};
  if (::uname(&system) == 0) {
    facts.hostName = escaped(static_cast<const char*>(system.nodename));
    facts.kernel = escaped(fmt::format("{} {}", static_cast<const char*>(system.release),
                                       static_cast<const char*>(system.machine)));
  }
  rlimit files{};
  if (::getrlimit(RLIMIT_NOFILE, &files) == 0) facts.openFiles = files.rlim_cur;
  return facts;
}

Variant serverProperties(const HostFacts& host, const ServerFacts& server) {
  Variant properties{
      {"version", std::string(talvekVersion)},
      {"uuid", server.uuid},
      {"host name", host.hostName},
      {"platform", std::string("Linux")},
      {"kernel", host.kernel},
      {"process", host.process},
      {"uptime seconds", static_cast<std::uint64_t>(server.uptime.count())},
      {"server", activityText(server.activity)},
  };
  if (!server.listening.empty()) {
    properties.push_back({"port", std::uint64_t{server.listening.front().port}});
    properties.push_back({"listens on", listeningAddresses(server)});
    properties.push_back({"reached at", reachableAddresses(server)});
  }
  properties.push_back({"exports", exportCounts(server)});
  properties.push_back({"imports", importCounts(server)});
  properties.push_back({"connections", std::uint64_t{server.connections}});
  properties.push_back({"storage engine", std::string(server.storageEngine)});
  properties.push_back({"event loops", std::uint64_t{server.eventLoops}});
  properties.push_back({"TLS", tlsText(server.tls)});
  properties.push_back({"limits", limits(host)});
  return properties;
}

}  // namespace Nbdd
