#include "nbdd/server/wire_error.h"

#include <cerrno>

namespace Nbdd {

Nbd::Error wireError(int error) {
  switch (error) {
    case 0:
      return Nbd::Error::none;
    case EPERM:
    case EROFS:
      return Nbd::Error::perm;
    case ENOSPC:
    case EDQUOT:
    case EFBIG:
      return Nbd::Error::nospc;
    case EOVERFLOW:
      return Nbd::Error::overflow;
    case ENOTSUP:
      return Nbd::Error::notsup;
    default:
      return Nbd::Error::io;
  }
}

}  // namespace Nbdd
