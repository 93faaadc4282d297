#pragma once

#include <functional>

#include "nbdd/reservations/lease.h"

namespace Nbdd::Reservations {

/// Whom a server serves: what the desk moves. The control loop's thread.
class Gate {
 public:
  virtual ~Gate() = default;

  /// Lets nobody in any more, lets every client finish the requests that run, ends it, and calls `cleared`
  /// when the last has ended: from then on nothing that any of them sent can reach the storage. Never inside
  /// this call.
  virtual void clear(std::move_only_function<void()> cleared) = 0;

  /// Lets only clients in that have proven this lease.
  virtual void admitOnly(const LeaseId& lease) = 0;

  /// Lets everybody in.
  virtual void admitAll() = 0;

  /// Ends the clients that have proven this lease, after their running requests.
  virtual void endHolder(const LeaseId& lease) = 0;
};

}  // namespace Nbdd::Reservations
