#include "nbdd/exports/node.h"

#include <fcntl.h>
#include <fmt/core.h>
#include <linux/fs.h>
#include <linux/magic.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/vfs.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <optional>
#include <system_error>
#include <utility>

#include "nbdd/config/read_file.h"
#include "nbdd/exports/identity.h"
#include "nbdd/log/log.h"

namespace Nbdd {

namespace {

using Control::FailureCode;

constexpr std::uint32_t sectorSize = 512;
constexpr std::uint32_t smallestPreferred = 512;
constexpr std::uint32_t largestPreferred = std::uint32_t{64} * 1024;

std::unexpected<Control::Failure> fail(FailureCode code, const std::string& path, std::string_view words) {
  return std::unexpected(Control::Failure{code, fmt::format("{} {}", escaped(path), words)});
}

/// The failure for an errno that opening or looking at `path` gave.
std::unexpected<Control::Failure> failWith(int error, const std::string& path) {
  switch (error) {
    case ENOENT:
    case ENOTDIR:
    case ELOOP:
      return fail(FailureCode::nodeNotFound, path, "does not exist");
    case EACCES:
    case EPERM:
      return fail(FailureCode::nodeAccessDenied, path, "may not be opened by the service as asked");
    case EROFS:
      return fail(FailureCode::nodeReadOnly, path, "can only be read");
    case EBUSY:
    case ETXTBSY:
    case EWOULDBLOCK:
      return fail(FailureCode::nodeInUse, path, "is in use by another program");
    case EISDIR:
      return fail(FailureCode::nodeIsDirectory, path, "is a directory");
    case ENAMETOOLONG:
      return fail(FailureCode::invalidArgument, path, "is too long for a path");
    default:
      return fail(FailureCode::nodeError, path,
                  fmt::format("cannot be used: {}", std::generic_category().message(error)));
  }
}

Control::Result<NodeIdentity> identityFrom(const struct stat& status, const std::string& path) {
  switch (status.st_mode & S_IFMT) {
    case S_IFREG:
      return NodeIdentity{NodeKind::regular, status.st_dev, status.st_ino};
    case S_IFBLK:
      return NodeIdentity{NodeKind::block, status.st_rdev, 0};
    case S_IFDIR:
      return fail(FailureCode::nodeIsDirectory, path, "is a directory");
    default:
      return fail(FailureCode::nodeNotSupported, path, "is neither a file nor a block device");
  }
}

/// Keeps others out of a file, as far as they keep the same rule, and out of nothing else: the lock falls
/// with the descriptor. A file system without locks is no reason to refuse it.
int lockFile(int descriptor, bool readOnly) {
  if (::flock(descriptor, (readOnly ? LOCK_SH : LOCK_EX) | LOCK_NB) == 0) return 0;
  return errno == EWOULDBLOCK ? EWOULDBLOCK : 0;
}

/// The size and blocks of a block device; 0 or an errno.
int measureDevice(OpenNode& node) {
  std::uint64_t size = 0;
  int logical = 0;
  unsigned int physical = 0;
  const int descriptor = node.descriptor.number();
  if (::ioctl(descriptor, BLKGETSIZE64, &size) != 0 || ::ioctl(descriptor, BLKSSZGET, &logical) != 0)
    return errno;
  if (::ioctl(descriptor, BLKPBSZGET, &physical) != 0) physical = 0;
  node.size = size;
  node.logicalBlock = logical > 0 ? static_cast<std::uint32_t>(logical) : sectorSize;
  node.preferredBlock = std::max({node.logicalBlock, std::uint32_t{physical}, std::uint32_t{4096}});
  return 0;
}

void measureFile(const struct stat& status, OpenNode& node) {
  node.size = static_cast<std::uint64_t>(status.st_size);
  node.logicalBlock = 1;
  node.preferredBlock =
      static_cast<std::uint32_t>(std::clamp<std::int64_t>(status.st_blksize, 1, largestPreferred));
  struct statfs system{};
  if (::fstatfs(node.descriptor.number(), &system) != 0) return;
  node.memoryBacked = system.f_type == TMPFS_MAGIC || system.f_type == RAMFS_MAGIC;
  constexpr long xfsMagic = 0x58465342;  // not in linux/magic.h of Debian 12
  node.localDisk = system.f_type == EXT4_SUPER_MAGIC || system.f_type == xfsMagic ||
                   system.f_type == BTRFS_SUPER_MAGIC || system.f_type == F2FS_SUPER_MAGIC;
}

/// What the kernel says of the device behind the node: a partition's disk is one directory up.
bool isRotational(dev_t device) {
  const std::string base = fmt::format("/sys/dev/block/{}:{}/", major(device), minor(device));
  for (const char* const relative : {"queue/rotational", "../queue/rotational"}) {
    const auto text = readFile(base + relative, 16);
    if (text) return text->starts_with('1');
  }
  return false;
}

/// Fills in everything about a node but its descriptor.
Control::Result<OpenedNode> measured(OpenNode node, const NodeIdentity& identity, const std::string& path,
                                     bool readOnly) {
  struct stat status{};
  if (::fstat(node.descriptor.number(), &status) != 0) return failWith(errno, path);
  node.readOnly = readOnly;
  node.blockDevice = identity.kind == NodeKind::block;
  if (!node.blockDevice) {
    measureFile(status, node);
  } else if (const int error = measureDevice(node); error != 0) {
    return failWith(error, path);
  }
  node.preferredBlock = std::clamp(std::bit_ceil(node.preferredBlock), smallestPreferred, largestPreferred);
  node.rotational = !node.memoryBacked && isRotational(node.blockDevice ? status.st_rdev : status.st_dev);
  return OpenedNode{std::move(node), identity};
}

}  // namespace

Elements elementsOf(const OpenNode& node) {
  const std::uint64_t wanted = node.blockDevice ? node.logicalBlock : sectorSize;
  if (wanted == 0 || node.size % wanted != 0) return {node.size, 1};
  return {node.size / wanted, wanted};
}

Control::Result<NodeIdentity> identifyNode(const std::string& path) {
  if (!isNodePath(path)) {
    return fail(FailureCode::invalidArgument, path.substr(0, 80),
                "is no absolute path in UTF-8 of at most 4095 bytes");
  }
  const Io::FileDescriptor place(::open(path.c_str(), O_PATH | O_CLOEXEC));
  struct stat status{};
  if (!place || ::fstat(place.number(), &status) != 0) return failWith(errno, path);
  return identityFrom(status, path);
}

Control::Result<OpenedNode> openNode(const std::string& path, bool readOnly) {
  const Control::Result<NodeIdentity> identity = identifyNode(path);
  if (!identity) return std::unexpected(identity.error());
  // The kernel gives a block device to one exclusive opener only: not to us while it is mounted, and to
  // nobody else while we write to it. O_NONBLOCK matters only if a fifo has just taken the node's place.
  const bool exclusive = identity->kind == NodeKind::block && !readOnly;
  const int flags = (readOnly ? O_RDONLY : O_RDWR) | (exclusive ? O_EXCL : 0);
  OpenNode node;
  node.descriptor = Io::FileDescriptor(::open(path.c_str(), flags | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  struct stat status{};
  if (!node.descriptor || ::fstat(node.descriptor.number(), &status) != 0) return failWith(errno, path);
  const Control::Result<NodeIdentity> opened = identityFrom(status, path);
  if (!opened) return std::unexpected(opened.error());
  if (*opened != *identity)
    return fail(FailureCode::nodeError, path, "was replaced while it was opened: try again");
  // io_uring would take O_NONBLOCK as a wish to be told EAGAIN.
  const int statusFlags = ::fcntl(node.descriptor.number(), F_GETFL);
  if (statusFlags < 0 || ::fcntl(node.descriptor.number(), F_SETFL, statusFlags & ~O_NONBLOCK) != 0) {
    return failWith(errno, path);
  }
  const bool block = opened->kind == NodeKind::block;
  if (const int error = block ? 0 : lockFile(node.descriptor.number(), readOnly); error != 0) {
    return failWith(error, path);
  }
  // A device may be set read-only and still be opened for writing.
  int deviceReadOnly = 0;
  if (exclusive && ::ioctl(node.descriptor.number(), BLKROGET, &deviceReadOnly) == 0 && deviceReadOnly != 0) {
    return failWith(EROFS, path);
  }
  return measured(std::move(node), *opened, path, readOnly);
}

Control::Result<OpenedNode> shareNode(const OpenNode& open, const NodeIdentity& identity,
                                      const std::string& path, bool readOnly) {
  OpenNode node;
  node.descriptor = Io::FileDescriptor(::fcntl(open.descriptor.number(), F_DUPFD_CLOEXEC, 0));
  if (!node.descriptor) return failWith(errno, path);
  return measured(std::move(node), identity, path, readOnly);
}

}  // namespace Nbdd
