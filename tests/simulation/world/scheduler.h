#pragma once

#include <pthread.h>

namespace Simulation {

/// Who says what happens next in the world that is.
class Scheduler {
 public:
  Scheduler();
  Scheduler(const Scheduler&) = delete;
  Scheduler& operator=(const Scheduler&) = delete;
  virtual ~Scheduler();

  /// The one that is, or null.
  static Scheduler* current();

  /// Goes on until a thread of the service has ended.
  virtual void untilFinished(pthread_t thread) = 0;
};

}  // namespace Simulation
