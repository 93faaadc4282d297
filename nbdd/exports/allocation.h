#pragma once

#include <cstddef>
#include <cstdint>
#include <expected>
#include <vector>

#include "nbdd/exports/known_data.h"

namespace Nbdd {

/// A run of bytes of a file that is either allocated or a hole.
struct AllocationRun {
  std::uint64_t length = 0;
  bool hole = false;
};

/// Where data and holes of a file begin.
class FileMap {
 public:
  virtual ~FileMap() = default;

  /// The first byte at or behind `offset` that is data (`whence` is SEEK_DATA) or in a hole (SEEK_HOLE), the
  /// end of the file being a hole too; or an errno. As lseek(2).
  [[nodiscard]] virtual std::expected<std::uint64_t, int> seek(std::uint64_t offset, int whence) = 0;

  /// The bytes that the file has now, or an errno.
  [[nodiscard]] virtual std::expected<std::uint64_t, int> size() = 0;
};

/// The allocation of [offset, offset + length) of a file: runs in order, neighbours of different kinds,
/// `maximumRuns` at most, so that they may end before the range does. A file system that does not know says
/// that all is data. Returns an errno on failure; EIO where the range reaches beyond the end of the file,
/// which has become shorter. Asks the map twice for each pair of a hole and data, and not at all where
/// `known` has the answer. Blocks.
std::expected<std::vector<AllocationRun>, int> allocation(FileMap& file, KnownData& known,
                                                          std::uint64_t offset, std::uint64_t length,
                                                          std::size_t maximumRuns);

/// The same of an open file.
std::expected<std::vector<AllocationRun>, int> allocation(int file, KnownData& known, std::uint64_t offset,
                                                          std::uint64_t length, std::size_t maximumRuns);

/// Whether all of [offset, offset + length) of `file` is in the page cache, so that reading it waits for no
/// device. False where the kernel cannot tell.
bool isCached(int file, std::uint64_t offset, std::uint64_t length);

}  // namespace Nbdd
