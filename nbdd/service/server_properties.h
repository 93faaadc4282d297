#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "control/records.h"
#include "nbd/constants.h"

namespace Nbdd {

/// What the service knows of the machine and the process that it runs on and in.
struct HostFacts {
  std::string hostName{};  // escaped: the kernel takes any bytes
  std::string kernel{};    // release and processor, "6.1.0 x86_64"
  std::uint64_t process = 0;
  std::uint64_t openFiles = 0;  // as many as the process may have
};

/// Asks the system; what it does not tell stays empty or 0.
HostFacts hostFacts();

enum class ServerActivity : std::uint8_t {
  stopped,
  listening,
  waiting,  // started, but cannot listen yet
  stopping,
};

/// What the service knows of its server.
struct ServerFacts {
  std::string uuid{};
  std::chrono::seconds uptime{};  // of the service, whatever the server did
  ServerActivity activity = ServerActivity::stopped;
  std::vector<Control::Endpoint> listening{};              // where it listens; empty when it does not
  std::vector<Control::NetIfFirewallState> reachableAt{};  // by other hosts, as far as it listens there
  std::size_t exports = 0;
  std::size_t servedExports = 0;  // offered to clients, or still used by some
  std::size_t clients = 0;        // that use an export
  std::size_t imports = 0;
  std::size_t usedImports = 0;  // enabled, or not quite disabled
  std::size_t connections = 0;  // all of them, those in the handshake included
  std::string_view storageEngine{};
  std::size_t eventLoops = 0;
  Nbd::TlsMode tls = Nbd::TlsMode::off;
};

/// The server's properties: what an operator wants to know, and programs may rely on. Names are never given a
/// second meaning; docs/control-api.md lists them.
Control::Variant serverProperties(const HostFacts& host, const ServerFacts& server);

}  // namespace Nbdd
