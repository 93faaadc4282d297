#pragma once

namespace Nbdd::Io {

/// Whether a connection waits to be accepted on `listener`. accept(2) itself does not say so once the process
/// is out of descriptors: it then fails for that reason, whether or not anybody waits.
bool isConnectionWaiting(int listener);

}  // namespace Nbdd::Io
