#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <utility>

namespace Nbdd {

/// The bytes of a file that is all memory (tmpfs, ramfs), mapped, so that reading and writing them is a copy
/// without a system call.
///
/// For files without holes: reading a hole through a mapping would give it memory, and writing one would cost
/// more than a write(2) does. The processor says so with a signal when a byte is not there after all
/// (somebody has cut the file off, or its memory is gone); that ends the copy, and the caller's system call
/// finds out what is wrong. Only within the file's last page nobody says so: who cuts a served file off loses
/// what is written behind the cut in that page. Any thread; concurrent copies of the same bytes are as good
/// as concurrent system calls.
class Mapping {
 public:
  /// The first `size` bytes of `file`; nothing if they cannot be mapped.
  static std::optional<Mapping> of(int file, std::uint64_t size, bool writable);

  Mapping(Mapping&& other) noexcept : bytes_(std::exchange(other.bytes_, {})) {}
  Mapping& operator=(Mapping&& other) noexcept {
    std::swap(bytes_, other.bytes_);
    return *this;
  }
  Mapping(const Mapping&) = delete;
  Mapping& operator=(const Mapping&) = delete;
  ~Mapping();

  /// Has the processor fetch what stands at `offset`, which lies inside, for a read that comes soon.
  void prefetch(std::uint64_t offset) const {
    constexpr std::size_t line = 64;
    constexpr std::size_t lines = 4;  // the rest follows by itself
    for (std::size_t ahead = 0; ahead < lines * line; ahead += line) {
      __builtin_prefetch(bytes_.data() + offset + ahead);
    }
  }
  /// Copies bytes from `offset` on into all of `target`. False: some are not there, and `target` is
  /// undefined.
  [[nodiscard]] bool read(std::span<std::byte> target, std::uint64_t offset) const;
  /// Copies `source` to `offset`. False: not all of it could be.
  [[nodiscard]] bool write(std::span<const std::byte> source, std::uint64_t offset) const;

 private:
  explicit Mapping(std::span<std::byte> bytes) : bytes_(bytes) {}

  std::span<std::byte> bytes_;
};

}  // namespace Nbdd
