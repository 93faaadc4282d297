#include "platform/init_code.h"

#include <mutex>

namespace InitCode {

namespace {

std::recursive_mutex& initialisationLock() {
  static std::recursive_mutex lock;
  return lock;
}

}  // namespace

void lock() { initialisationLock().lock(); }

void unlock() { initialisationLock().unlock(); }

}  // namespace InitCode
