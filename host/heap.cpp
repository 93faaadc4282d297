#include <cstdlib>

#include "platform/memory.h"

// Raw memory is what this interface is about.
// NOLINTBEGIN(cppcoreguidelines-owning-memory)
namespace Heap {

void* alloc(std::size_t size) noexcept { return std::malloc(size); }

void free(void* memory) noexcept { std::free(memory); }

}  // namespace Heap
// NOLINTEND(cppcoreguidelines-owning-memory)
