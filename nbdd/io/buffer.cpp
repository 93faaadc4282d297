#include "nbdd/io/buffer.h"

#include <algorithm>
#include <bit>

namespace Nbdd::Io {

std::size_t BufferPool::classOf(std::size_t size) {
  const auto width = static_cast<std::size_t>(std::bit_width(std::max<std::size_t>(size, 1) - 1));
  return std::max(width, smallestClass) - smallestClass;
}

Buffer BufferPool::take(std::size_t size) {
  const std::size_t sizeClass = classOf(size);
  if (sizeClass >= classes) {
    return {*this, Buffer::Memory(new std::byte[size]), size};
  }
  const std::size_t capacity = std::size_t{1} << (sizeClass + smallestClass);
  std::vector<Buffer::Memory>& free = free_[sizeClass];
  if (free.empty()) {
    return {*this, Buffer::Memory(new std::byte[capacity]), size};
  }
  Buffer::Memory memory = std::move(free.back());
  free.pop_back();
  freeBytes_ -= capacity;
  return {*this, std::move(memory), size};
}

void BufferPool::giveBack(Buffer::Memory memory, std::size_t size) {
  const std::size_t sizeClass = classOf(size);
  const std::size_t capacity = std::size_t{1} << (sizeClass + smallestClass);
  if (sizeClass < classes && freeBytes_ + capacity <= keptBytes) {
    freeBytes_ += capacity;
    free_[sizeClass].push_back(std::move(memory));
  }
}

}  // namespace Nbdd::Io
