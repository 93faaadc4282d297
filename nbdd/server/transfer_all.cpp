#include "nbdd/server/transfer_all.h"

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

}  // namespace

Io::Task<int> readAll(Io::FileIo& files, int file, std::span<std::byte> buffer, std::uint64_t offset) {
  return transferAll(files, file, buffer, offset, &Io::FileOperation::read);
}

Io::Task<int> writeAll(Io::FileIo& files, int file, std::span<const std::byte> data, std::uint64_t offset) {
  return transferAll(files, file, data, offset, &Io::FileOperation::write);
}

}  // namespace Nbdd
