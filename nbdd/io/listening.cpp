#include "nbdd/io/listening.h"

#include <poll.h>

namespace Nbdd::Io {

bool isConnectionWaiting(int listener) {
  pollfd waiting{.fd = listener, .events = POLLIN, .revents = 0};
  return ::poll(&waiting, 1, 0) > 0;
}

}  // namespace Nbdd::Io
