#include "nbdd/exports/allocation.h"

#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <utility>

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

class OpenFileMap : public FileMap {
 public:
  explicit OpenFileMap(int file) : file_(file) {}

  std::expected<std::uint64_t, int> seek(std::uint64_t offset, int whence) override {
    const off_t found = ::lseek(file_, static_cast<off_t>(offset), whence);
    if (found < 0) {
      return std::unexpected(errno);
    }
    return static_cast<std::uint64_t>(found);
  }

  std::expected<std::uint64_t, int> size() override {
    struct stat status{};
    if (::fstat(file_, &status) != 0) {
      return std::unexpected(errno);
    }
    return static_cast<std::uint64_t>(status.st_size);
  }

 private:
  int file_;
};

/// Where the next data stand at or behind `offset`, `end` at the most; or an errno. What a file has lost of
/// its end is no hole.
std::expected<std::uint64_t, int> nextData(FileMap& file, std::uint64_t offset, std::uint64_t end) {
  const std::expected<std::uint64_t, int> found = file.seek(offset, SEEK_DATA);
  if (found) {
    return std::min(*found, end);
  }
  if (found.error() != ENXIO) {
    return found;
  }
  const std::expected<std::uint64_t, int> size = file.size();
  if (!size) {
    return size;
  }
  if (*size < end) {
    return std::unexpected(EIO);
  }
  return end;  // none until the end of the file
}

/// Runs in order, the last of which grows as long as its kind stays the same.
class Runs {
 public:
  explicit Runs(std::size_t maximum) : maximum_(maximum) {}

  bool full() const { return runs_.size() >= maximum_; }
  void append(std::uint64_t length, bool hole) {
    if (!runs_.empty() && runs_.back().hole == hole) {
      runs_.back().length += length;
    } else {
      runs_.push_back({.length = length, .hole = hole});
    }
  }
  std::vector<AllocationRun> take() { return std::move(runs_); }

 private:
  std::size_t maximum_;
  std::vector<AllocationRun> runs_;
};

}  // namespace

std::expected<std::vector<AllocationRun>, int> allocation(FileMap& file, KnownData& known,
                                                          std::uint64_t offset, std::uint64_t length,
                                                          std::size_t maximumRuns) {
  const std::uint64_t end = offset + length;
  Runs runs(maximumRuns);
  while (offset < end && !runs.full()) {
    if (const std::optional<std::uint64_t> knownEnd = known.endAt(offset)) {
      const std::uint64_t next = std::min(*knownEnd, end);
      runs.append(next - offset, false);
      offset = next;
      continue;
    }
    const std::uint64_t generation = known.generation();
    const std::expected<std::uint64_t, int> data = nextData(file, offset, end);
    if (!data && (data.error() == EINVAL || data.error() == EOPNOTSUPP)) {
      runs.append(end - offset, false);
      break;
    }
    if (!data) {
      return std::unexpected(data.error());
    }
    if (*data > offset) {
      runs.append(*data - offset, true);
      offset = *data;
    }
    if (offset == end || runs.full()) {
      break;
    }
    const std::expected<std::uint64_t, int> hole = file.seek(offset, SEEK_HOLE);
    if (!hole) {
      return std::unexpected(hole.error() == ENXIO ? EIO : hole.error());
    }
    if (*hole == offset) {
      continue;  // somebody punched it between the two looks
    }
    known.learn(generation, offset, *hole);
    const std::uint64_t next = std::min(*hole, end);
    runs.append(next - offset, false);
    offset = next;
  }
  return runs.take();
}

std::expected<std::vector<AllocationRun>, int> allocation(int file, KnownData& known, std::uint64_t offset,
                                                          std::uint64_t length, std::size_t maximumRuns) {
  OpenFileMap map(file);
  return allocation(map, known, offset, length, maximumRuns);
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
