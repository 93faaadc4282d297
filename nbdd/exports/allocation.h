#pragma once

#include <cstddef>
#include <cstdint>
#include <expected>
#include <vector>

#include "nbd/reply.h"

namespace Nbdd {

/// A run of bytes of a file that is either allocated or a hole.
struct AllocationRun {
  std::uint64_t length = 0;
  bool hole = false;
};

/// The allocation of [offset, offset + length) of `file`, as SEEK_DATA and SEEK_HOLE report it: runs in
/// order, neighbours of different kinds, `maximumRuns` at most, so that they may end before the range does. A
/// file system that does not know says that all is data. Returns an errno on failure; EIO where the range
/// reaches beyond the end of the file, which has become shorter. Blocks.
std::expected<std::vector<AllocationRun>, int> allocation(int file, std::uint64_t offset,
                                                          std::uint64_t length, std::size_t maximumRuns);

/// Whether all of [offset, offset + length) of `file` is in the page cache, so that reading it waits for no
/// device. False where the kernel cannot tell.
bool isCached(int file, std::uint64_t offset, std::uint64_t length);

}  // namespace Nbdd
