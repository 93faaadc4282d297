#pragma once

#include <sys/types.h>

#include <chrono>
#include <expected>
#include <optional>
#include <string>

#include "nbdd/config/locations.h"
#include "nbdd/server/server.h"
#include "nbdd/service/options.h"
#include "nbdd/state/state_store.h"

namespace Nbdd {

/// Why the service could not start: one sentence that says what to do.
struct StartUpFailure {
  std::string sentence;
  ExitCode code = ExitCode::failure;
};

template <class T>
using StartUp = std::expected<T, StartUpFailure>;

/// Locks that keep a second service out of this one's directories.
struct InstanceLocks {
  InstanceLock runtime;
  InstanceLock state;
};

/// Makes the directories if they are missing and locks them. One that is locked by a service which is just
/// beginning or ending is waited for, shortly; one whose service answers gives ExitCode::anotherRuns.
StartUp<InstanceLocks> claimDirectories(const Locations& locations);

/// The saved state, or a fresh one, which is then saved at once: the server's UUID must not change.
StartUp<SavedState> loadState(StateStore& store);

/// The group whose members may control the system's service; nothing if there is none.
std::optional<gid_t> controlGroup(const Locations& locations);

/// Lets the process open as many files as it may, and outlive clients that go away.
void prepareProcess();

/// How the server waits for storage. NBDD_IO=threads makes it do without io_uring, for a kernel whose
/// io_uring is not to be trusted.
StartUp<Server::Options> serverOptions(const Environment& environment);

/// How long a service that was started on demand stays with nothing to do.
StartUp<std::chrono::seconds> idleTime(const Environment& environment);

}  // namespace Nbdd
