#include "nbdd/exports/allocation.h"

#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace Nbdd {

namespace {

#ifndef SYS_cachestat
#define SYS_cachestat 451
#endif

// As in linux/mman.h of Linux 6.5, which Debian 12's headers are older than.
struct CacheRange {
  std::uint64_t offset;
  std::uint64_t length;
};
struct CacheState {
  std::uint64_t cached;  // pages, as all of these
  std::uint64_t dirty;
  std::uint64_t writeback;
  std::uint64_t evicted;
  std::uint64_t recentlyEvicted;
};

/// 0 if the file, in which there are no data behind some offset, still reaches to `end`; else an errno.
int checkEnd(int file, std::uint64_t end) {
  struct stat status{};
  if (::fstat(file, &status) != 0) {
    return errno;
  }
  return static_cast<std::uint64_t>(status.st_size) >= end ? 0 : EIO;
}

/// Where the next byte of the kind `whence` stands at or behind `offset`, `end` at the most; or an errno.
/// What a file has lost of its end is no hole.
std::expected<std::uint64_t, int> seek(int file, std::uint64_t offset, std::uint64_t end, int whence) {
  const off_t found = ::lseek(file, static_cast<off_t>(offset), whence);
  if (found >= 0) {
    return std::min(static_cast<std::uint64_t>(found), end);
  }
  if (errno != ENXIO) {
    return std::unexpected(errno);
  }
  if (const int error = checkEnd(file, end); error != 0) {
    return std::unexpected(error);
  }
  return end;  // none until the end of the file
}

}  // namespace

std::expected<std::vector<AllocationRun>, int> allocation(int file, std::uint64_t offset,
                                                          std::uint64_t length, std::size_t maximumRuns) {
  const std::uint64_t end = offset + length;
  std::vector<AllocationRun> runs;
  while (offset < end && runs.size() < maximumRuns) {
    const std::expected<std::uint64_t, int> data = seek(file, offset, end, SEEK_DATA);
    if (!data) {
      if (data.error() == EINVAL || data.error() == EOPNOTSUPP) {
        runs.push_back({.length = end - offset, .hole = false});
        return runs;
      }
      return std::unexpected(data.error());
    }
    if (*data > offset) {
      runs.push_back({.length = *data - offset, .hole = true});
      offset = *data;
      continue;
    }
    const std::expected<std::uint64_t, int> hole = seek(file, offset, end, SEEK_HOLE);
    if (!hole) {
      return std::unexpected(hole.error());
    }
    if (*hole == offset) {
      continue;  // somebody punched it between the two looks
    }
    if (!runs.empty() && !runs.back().hole) {
      runs.back().length += *hole - offset;
    } else {
      runs.push_back({.length = *hole - offset, .hole = false});
    }
    offset = *hole;
  }
  return runs;
}

bool isCached(int file, std::uint64_t offset, std::uint64_t length) {
  static const auto page = static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE));
  CacheRange range{.offset = offset, .length = length};
  CacheState state{};
  if (::syscall(SYS_cachestat, file, &range, &state, 0U) != 0) {
    return false;
  }
  const std::uint64_t pages = (offset + length + page - 1) / page - offset / page;
  return state.cached >= pages;
}

}  // namespace Nbdd
