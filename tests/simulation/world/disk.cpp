#include "tests/simulation/world/disk.h"

#include <fcntl.h>
#include <linux/falloc.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace Simulation {

Disk::Disk(World& world, DiskObserver& observer, std::uint64_t size)
    : world_(world), observer_(observer), content_(size), allocated_((size + block - 1) / block) {}

/// 0, or one of the errors.
int Disk::fault(unsigned int perMille, std::initializer_list<int> errors) {
  return world_.random().chance(perMille) ? world_.random().pick(errors) : 0;
}

ssize_t Disk::read(std::span<std::byte> buffer, std::uint64_t offset) {
  if (offset >= content_.size()) {
    return 0;
  }
  if (world_.random().chance(world_.faults().interrupted)) {
    return -EINTR;
  }
  if (const int error = fault(world_.faults().readError, {EIO}); error != 0) {
    world_.note("disk: the read of {} bytes at {} fails", buffer.size(), offset);
    observer_.readFails(offset, buffer.size(), error);
    return -error;
  }
  std::size_t count = std::min<std::size_t>(buffer.size(), content_.size() - offset);
  if (world_.random().chance(world_.faults().shortTransfer)) {
    count = world_.random().between(1, count);
  }
  std::ranges::copy(std::span(content_).subspan(offset, count), buffer.begin());
  return static_cast<ssize_t>(count);
}

ssize_t Disk::readCached(std::span<std::byte> buffer, std::uint64_t offset) {
  if (world_.random().chance(world_.faults().notCached)) {
    return -EAGAIN;
  }
  return read(buffer, offset);
}

ssize_t Disk::write(std::span<const std::byte> bytes, std::uint64_t offset) {
  if (world_.random().chance(world_.faults().interrupted)) {
    return -EINTR;
  }
  if (offset + bytes.size() > content_.size()) {
    world_.fail(fmt::format("a write of {} bytes at {} makes the file longer", bytes.size(), offset));
    return -EFBIG;
  }
  if (const int error = fault(world_.faults().writeError, {EIO, ENOSPC}); error != 0) {
    world_.note("disk: the write of {} bytes at {} fails with {}", bytes.size(), offset, error);
    observer_.writeFails(offset, bytes.size(), error);
    return -error;
  }
  std::size_t count = bytes.size();
  if (count > 0 && world_.random().chance(world_.faults().shortTransfer)) {
    count = world_.random().between(1, count);
  }
  if (count > 0) {
    world_.note("disk: writes {} bytes at {}", count, offset);
    observer_.writing(offset, bytes.first(count));
    std::ranges::copy(bytes.first(count), content_.begin() + static_cast<std::ptrdiff_t>(offset));
    for (std::uint64_t index = offset / block; index <= (offset + count - 1) / block; ++index) {
      allocated_[index] = true;
    }
  }
  return static_cast<ssize_t>(count);
}

int Disk::allocate(int mode, std::uint64_t offset, std::uint64_t length) {
  if (world_.random().chance(world_.faults().interrupted)) {
    return -EINTR;
  }
  const bool punching = mode == (FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE);
  if (!punching && mode != (FALLOC_FL_ZERO_RANGE | FALLOC_FL_KEEP_SIZE)) {
    world_.impossible(fmt::format("fallocate with mode {}", mode));
  }
  if (punching ? world_.faults().noPunch : world_.faults().noZeroRange) {
    return -EOPNOTSUPP;
  }
  if (length == 0) {
    return -EINVAL;
  }
  if (const int error = fault(world_.faults().writeError, {EIO, ENOSPC}); error != 0) {
    world_.note("disk: the zeroing of {} bytes at {} fails with {}", length, offset, error);
    observer_.writeFails(offset, length, error);
    return -error;
  }
  zero(offset, std::min(length, content_.size() - offset), punching);
  return 0;
}

int Disk::discard(std::uint64_t offset, std::uint64_t length) {
  zero(offset, length, true);
  return 0;
}

void Disk::zero(std::uint64_t offset, std::uint64_t length, bool punching) {
  world_.note("disk: {} {} bytes at {}", punching ? "punches" : "zeroes", length, offset);
  observer_.zeroing(offset, length, punching);
  std::fill_n(content_.begin() + static_cast<std::ptrdiff_t>(offset), length, std::byte{0});
  for (std::uint64_t index = offset / block; index * block < offset + length; ++index) {
    const bool whole = index * block >= offset && (index + 1) * block <= offset + length;
    allocated_[index] = punching ? allocated_[index] && !whole : true;
  }
}

off_t Disk::seek(std::uint64_t offset, int whence) const {
  if (offset >= content_.size()) {
    return -ENXIO;
  }
  if (whence != SEEK_DATA && whence != SEEK_HOLE) {
    world_.impossible(fmt::format("lseek with whence {}", whence));
  }
  std::uint64_t position = offset;
  while (position < content_.size() && allocated_[position / block] != (whence == SEEK_DATA)) {
    position = (position / block + 1) * block;
  }
  if (position >= content_.size()) {
    return whence == SEEK_DATA ? -ENXIO : static_cast<off_t>(content_.size());
  }
  return static_cast<off_t>(position);
}

std::uint64_t Disk::allocatedBytes() const {
  return static_cast<std::uint64_t>(std::ranges::count(allocated_, true)) * block;
}

bool Disk::isCached() { return !world_.random().chance(world_.faults().notCached); }

int Disk::endSync(std::size_t begun) {
  if (world_.random().chance(world_.faults().syncError)) {
    world_.note("disk: a sync fails");
    observer_.syncFails(begun);
    return -EIO;
  }
  world_.note("disk: a sync of the first {} changes ends", begun);
  observer_.synced(begun);
  return 0;
}

}  // namespace Simulation
