#pragma once

#include <cstdint>

namespace Host {

/// Sets what `Error::get()` returns on this thread, until the next call. To be called by whatever part of the
/// platform has just failed; a success leaves the code of the last failure alone.
void setError(std::uint32_t code) noexcept;

}  // namespace Host
