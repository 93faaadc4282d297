#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "nbdd/exports/allocation.h"

namespace Nbdd {

/// Reads of at least this size leave by sendfile, whose saved copy then outweighs its system call, and their
/// holes are asked of the file system. Below it the bytes are read and looked at.
inline constexpr std::uint32_t sendFileLength = 64 * 1024;

/// Whether all bytes are zero. Data betray themselves in the first few.
bool isZero(std::span<const std::byte> bytes);

/// The runs of data and holes that the reply to a read of [offset, offset + length) is made of: at least one,
/// and together exactly the range. A range in too many pieces ends in one run that is sent as data. May
/// block.
std::vector<AllocationRun> allocationOfRead(int file, KnownData& known, std::uint64_t offset,
                                            std::uint64_t length);

/// How many bytes of the runs are no holes.
std::size_t dataLength(const std::vector<AllocationRun>& runs);

}  // namespace Nbdd
