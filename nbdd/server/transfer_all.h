#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "nbdd/exports/storage.h"
#include "nbdd/io/file_io.h"
#include "nbdd/io/task.h"

namespace Nbdd {

/// Reads all of `buffer` from the file, in as many operations as it takes. 0 or an errno; a file that has
/// become shorter than the export gives EIO. The memory stays until the task has ended.
Io::Task<int> readAll(Io::FileIo& files, int file, std::span<std::byte> buffer, std::uint64_t offset);

/// The same for writing.
Io::Task<int> writeAll(Io::FileIo& files, int file, std::span<const std::byte> data, std::uint64_t offset);

/// Writes all of `data` here and now: with a copy if the storage is memory, or else with write(2), which may
/// wait. 0 or an errno. Any thread.
int writeNow(Storage& storage, std::span<const std::byte> data, std::uint64_t offset);

}  // namespace Nbdd
