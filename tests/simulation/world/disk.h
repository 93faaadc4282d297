#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "tests/simulation/world/world.h"

namespace Simulation {

/// Hears of everything that the disk is made to do, before it does it.
class DiskObserver {
 public:
  virtual ~DiskObserver() = default;
  virtual void writing(std::uint64_t offset, std::span<const std::byte> bytes) = 0;
  /// `punching`: the range also loses its allocation.
  virtual void zeroing(std::uint64_t offset, std::uint64_t length, bool punching) = 0;
  /// Instead of that: an errno.
  virtual void readFails(std::uint64_t offset, std::uint64_t length, int error) = 0;
  virtual void writeFails(std::uint64_t offset, std::uint64_t length, int error) = 0;
  /// How many changes there were so far.
  virtual std::size_t changes() const = 0;
  /// A sync that began after `changes` of them has succeeded.
  virtual void synced(std::size_t changes) = 0;
  /// It has failed: the kernel reports that once and forgets what it could not write.
  virtual void syncFails(std::size_t changes) = 0;
};

/// A file of fixed size, its page cache and the file system that it lives in. Results as system calls give
/// them, or a negative errno.
class Disk {
 public:
  Disk(World& world, DiskObserver& observer, std::uint64_t size);

  std::uint64_t size() const { return content_.size(); }
  std::span<const std::byte> content() const { return content_; }

  ssize_t read(std::span<std::byte> buffer, std::uint64_t offset);
  ssize_t readCached(std::span<std::byte> buffer, std::uint64_t offset);
  ssize_t write(std::span<const std::byte> bytes, std::uint64_t offset);
  int allocate(int mode, std::uint64_t offset, std::uint64_t length);
  int discard(std::uint64_t offset, std::uint64_t length);
  off_t seek(std::uint64_t offset, int whence) const;
  std::uint64_t allocatedBytes() const;
  bool isCached();

  std::size_t beginSync() const { return observer_.changes(); }
  int endSync(std::size_t begun);

 private:
  static constexpr std::uint64_t block = 4096;  // of the file system: what is allocated or not

  int fault(unsigned int perMille, std::initializer_list<int> errors);
  void zero(std::uint64_t offset, std::uint64_t length, bool punching);

  World& world_;
  DiskObserver& observer_;
  std::vector<std::byte> content_;
  std::vector<bool> allocated_;
};

/// An open file: the disk seen through a descriptor.
class File final : public Descriptor {
 public:
  explicit File(Disk& opened) : disk(opened) {}
  Disk& disk;
};

}  // namespace Simulation
