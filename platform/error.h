#pragma once

#include <cstdint>

/// The reason of the last failed platform call.
namespace Error {

/// The code of the last platform or service call that failed on this thread; 0 if none has failed yet. Calls
/// that succeed leave it alone, so it is meaningful only right after a failure. Reading it changes nothing.
[[nodiscard]] std::uint32_t get();

}  // namespace Error
