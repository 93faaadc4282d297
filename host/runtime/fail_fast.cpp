#include <cstdlib>

#include "platform/process.h"

namespace Proc {

void failFast() noexcept { std::abort(); }

}  // namespace Proc
