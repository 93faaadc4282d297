#include "nbdd/server/transfer_all.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace Nbdd {

namespace {

/// Repeats the operation that `describe` makes until all of `bytes` is read or written. 0 or an errno; a file
/// that has become shorter than the export gives EIO.
template <class Bytes>
Io::Task<int> transferAll(Io::FileIo& files, int file, Bytes bytes, std::uint64_t offset,
                          Io::FileOperation (*describe)(int, Bytes, std::uint64_t)) {
  while (!bytes.empty()) {
    Io::FileOperation operation = describe(file, bytes, offset);
    Io::FileIo::Running running = files.run(operation);
    const int result = co_await running;
    if (result == 0) {
      co_return EIO;
    }
    if (result < 0 && result != -EINTR && result != -EAGAIN) {
      co_return -result;
    }
    const auto count = static_cast<std::size_t>(std::max(result, 0));
    bytes = bytes.subspan(count);
    offset += count;
  }
  co_return 0;
}

/// Writes all of it with write(2). 0 or an errno.
int writeAllNow(int file, std::span<const std::byte> data, std::uint64_t offset) {
  while (!data.empty()) {
    const ssize_t written = ::pwrite(file, data.data(), data.size(), static_cast<off_t>(offset));
    if (written < 0 && errno != EINTR) {
      return errno;
    }
    if (written == 0) {
      return EIO;
    }
    const auto count = static_cast<std::size_t>(std::max<ssize_t>(written, 0));
    data = data.subspan(count);
    offset += count;
  }
  return 0;
}

}  // namespace

Io::Task<int> readAll(Io::FileIo& files, int file, std::span<std::byte> buffer, std::uint64_t offset) {
  return transferAll(files, file, buffer, offset, &Io::FileOperation::read);
}

Io::Task<int> writeAll(Io::FileIo& files, int file, std::span<const std::byte> data, std::uint64_t offset) {
  return transferAll(files, file, data, offset, &Io::FileOperation::write);
}

int writeNow(Storage& storage, std::span<const std::byte> data, std::uint64_t offset) {
  if (storage.node().memoryBacked) {
    const Mapping* const mapping = storage.mapping();
    const bool done = mapping != nullptr && mapping->write(data, offset);
    return done ? 0 : writeAllNow(storage.descriptor(), data, offset);
  }
  const WritePace::Clock::time_point begin = WritePace::Clock::now();
  const int error = writeAllNow(storage.descriptor(), data, offset);
  const WritePace::Clock::time_point end = WritePace::Clock::now();
  storage.writePace().wrote(end - begin, end);
  return error;
}

}  // namespace Nbdd
