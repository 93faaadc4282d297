#include "shell/tear_down.h"

#include <new>

#include "platform/init_code.h"
#include "platform/memory.h"

namespace Shell {

namespace {

struct Node {
  Node* next;
  void (*function)();
};

Node* newest = nullptr;

/// Holds the initialisation lock.
class InitLock {
 public:
  InitLock() { InitCode::lock(); }
  ~InitLock() { InitCode::unlock(); }
  InitLock(const InitLock&) = delete;
  InitLock& operator=(const InitLock&) = delete;
};

/// Runs and forgets the newest function; false if there is none.
bool runNewest() {
  const InitLock lock;
  if (newest == nullptr) {
    return false;
  }
  const Node node = *newest;
  Heap::free(newest);
  newest = node.next;
  node.function();
  return true;
}

}  // namespace

int registerTearDown(void (*function)()) {
  const InitLock lock;
  void* const memory = Heap::alloc(sizeof(Node));
  if (memory == nullptr) {
    return -1;
  }
  // NOLINTNEXTLINE(cppcoreguidelines-owning-memory): the heap's, until it is run
  newest = new (memory) Node{newest, function};
  return 0;
}

void runTearDown() {
  while (runNewest()) {
  }
}

}  // namespace Shell
