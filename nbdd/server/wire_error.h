#pragma once

#include "nbd/constants.h"

namespace Nbdd {

/// The error of the wire that tells a client of a failed system call's `error` (an errno). What has no
/// counterpart there is an I/O error.
Nbd::Error wireError(int error);

}  // namespace Nbdd
