#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace Nbdd {

/// What the kernel lets this process do beyond what any process may.
struct Privileges {
  uid_t user = 0;
  std::uint64_t capabilities = 0;  // the effective ones, by their bits
  bool filtered = false;           // system calls are, by seccomp
  bool noNew = false;              // no program that it starts gets any more

  friend bool operator==(const Privileges&, const Privileges&) = default;
};

/// Reads the text of /proc/self/status. Nothing if what is looked for is not in it.
std::optional<Privileges> parsePrivileges(std::string_view status, uid_t user);
/// Those of this process; without /proc, those of its user alone.
Privileges ownPrivileges();

/// One line for the log: what the service may do, and what it may not.
std::string describe(const Privileges& privileges);

}  // namespace Nbdd
