#pragma once

#include <cstddef>
#include <cstdint>

/// Raw memory, for the few places that must learn of exhaustion instead of ending the process.
namespace Heap {

/// `size` bytes, aligned for any object, with undefined content; null when there is no memory. Owned by the
/// caller until it is given to `free`.
[[nodiscard]] void* alloc(std::size_t size) noexcept;

/// Gives back what `alloc` returned. Null is ignored.
void free(void* memory) noexcept;

}  // namespace Heap

/// Bytes in memory.
namespace Mem {

/// Copies `size` bytes. The two ranges must not overlap.
void copy(void* target, const void* source, std::size_t size) noexcept;

/// Sets `size` bytes to `value`.
void fill8(void* target, std::uint8_t value, std::size_t size) noexcept;

}  // namespace Mem
