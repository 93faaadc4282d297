#include "nbdd/server/read_shape.h"

#include <algorithm>
#include <cstring>

namespace Nbdd {

bool isZero(std::span<const std::byte> bytes) {
  const std::size_t head = std::min<std::size_t>(bytes.size(), 16);
  if (std::ranges::any_of(bytes.first(head), [](std::byte byte) { return byte != std::byte{0}; })) {
    return false;
  }
  // Every byte equals the one sixteen before it, and those are zero.
  return std::memcmp(bytes.data(), bytes.data() + head, bytes.size() - head) == 0;
}

std::vector<AllocationRun> allocationOfRead(int file, KnownData& known, std::uint64_t offset,
                                            std::uint64_t length) {
  // Chunks are not free either: a range in more pieces than this is sent as it is.
  constexpr std::size_t maximumRuns = 64;
  std::vector<AllocationRun> runs =
      allocation(file, known, offset, length, maximumRuns).value_or(std::vector<AllocationRun>());
  std::uint64_t found = 0;
  for (const AllocationRun& run : runs) {
    found += run.length;
  }
  if (found < length) {
    if (!runs.empty() && !runs.back().hole) {
      runs.back().length += length - found;
    } else {
      runs.push_back({.length = length - found, .hole = false});
    }
  }
  return runs;
}

std::size_t dataLength(const std::vector<AllocationRun>& runs) {
  std::size_t length = 0;
  for (const AllocationRun& run : runs) {
    length += run.hole ? 0 : static_cast<std::size_t>(run.length);
  }
  return length;
}

}  // namespace Nbdd
