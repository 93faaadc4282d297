#pragma once

#include <array>
#include <cstddef>
#include <memory>
#include <span>
#include <utility>
#include <vector>

namespace Nbdd::Io {

class BufferPool;

/// Memory borrowed from a pool, given back at the end of its life. Not initialised: who fills it sends no
/// more than was filled. May be empty.
class Buffer {
 public:
  Buffer() = default;
  Buffer(Buffer&& other) noexcept
      : pool_(std::exchange(other.pool_, nullptr)),
        memory_(std::move(other.memory_)),
        size_(std::exchange(other.size_, 0)) {}
  Buffer& operator=(Buffer&& other) noexcept {
    std::swap(pool_, other.pool_);
    std::swap(memory_, other.memory_);
    std::swap(size_, other.size_);
    return *this;
  }
  Buffer(const Buffer&) = delete;
  Buffer& operator=(const Buffer&) = delete;
  ~Buffer() { reset(); }

  std::byte* data() const { return memory_.get(); }
  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  std::span<std::byte> bytes() const { return {memory_.get(), size_}; }

  inline void reset();

 private:
  friend class BufferPool;
  using Memory = std::unique_ptr<std::byte[]>;

  Buffer(BufferPool& pool, Memory memory, std::size_t size)
      : pool_(&pool), memory_(std::move(memory)), size_(size) {}

  BufferPool* pool_ = nullptr;
  Memory memory_;
  std::size_t size_ = 0;
};

/// Keeps the buffers of one worker for reuse: large allocations come from the kernel page by page, zeroed,
/// and would cost more than filling them. One thread; outlives its buffers.
class BufferPool {
 public:
  /// A buffer of exactly `size` bytes.
  Buffer take(std::size_t size);

 private:
  friend class Buffer;

  static constexpr std::size_t smallestClass = 12;  // 4 KiB
  static constexpr std::size_t classes = 10;        // up to 2 MiB; larger ones are not kept
  static constexpr std::size_t keptBytes = 8UL << 20;

  static std::size_t classOf(std::size_t size);
  void giveBack(Buffer::Memory memory, std::size_t size);

  std::array<std::vector<Buffer::Memory>, classes> free_;
  std::size_t freeBytes_ = 0;
};

inline void Buffer::reset() {
  if (pool_ != nullptr) {
    pool_->giveBack(std::move(memory_), size_);
  }
  pool_ = nullptr;
  memory_.reset();
  size_ = 0;
}

}  // namespace Nbdd::Io
