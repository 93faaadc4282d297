#include <cstring>

#include "platform/memory.h"

namespace Mem {

void copy(void* target, const void* source, std::size_t size) noexcept {
  if (size > 0) {
    std::memcpy(target, source, size);
  }
}

void fill8(void* target, std::uint8_t value, std::size_t size) noexcept {
  if (size > 0) {
    std::memset(target, value, size);
  }
}

}  // namespace Mem
