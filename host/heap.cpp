#include <cstdlib>

#include "platform/memory.h"

namespace Heap {

void* alloc(std::size_t size) noexcept { return std::malloc(size); }

void free(void* memory) noexcept { std::free(memory); }

}  // namespace Heap
