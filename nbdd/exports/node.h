#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "control/interface.h"
#include "nbdd/exports/storage.h"

namespace Nbdd {

/// What a node is, as far as it can be exported.
enum class NodeKind { regular, block };

/// What makes two paths the same storage: device and inode of a file, device number of a block device.
struct NodeIdentity {
  NodeKind kind = NodeKind::regular;
  dev_t device = 0;
  ino_t inode = 0;  ///< 0 for a block device

  friend bool operator==(const NodeIdentity&, const NodeIdentity&) = default;
};

/// A storage node that is open and ours until its descriptor closes: nobody else who keeps the same rules
/// writes to it, or if we do, has it at all.
struct OpenedNode {
  OpenNode node;
  NodeIdentity identity;
};

/// How a size in bytes is told as elements: their product is the size.
struct Elements {
  std::uint64_t count = 0;
  std::uint64_t size = 1;

  friend bool operator==(const Elements&, const Elements&) = default;
};

/// Block devices count in logical blocks, files in 512 bytes; where that leaves a rest, in bytes.
Elements elementsOf(const OpenNode& node);

/// Looks at the node without opening it for data. Fails for paths that cannot be a node's (invalidArgument),
/// that lead nowhere (nodeNotFound) or nowhere for us (nodeAccessDenied), and for what holds no storage: a
/// directory (nodeIsDirectory), a fifo, socket or character device (nodeNotSupported).
Control::Result<NodeIdentity> identifyNode(const std::string& path);

/// Opens the node at `path`, for reading alone if `readOnly`. Never waits for anybody: a fifo is refused
/// before it is opened. Besides the failures of `identifyNode`: nodeAccessDenied, nodeReadOnly (it cannot be
/// written to, but could be exported read-only), nodeInUse (mounted, running, swapped to, or exported by
/// somebody who keeps a lock as we do), nodeError (anything else, with the kernel's words).
Control::Result<OpenedNode> openNode(const std::string& path, bool readOnly);

/// A second descriptor of a node that is open here already, under the same lock, and measured anew. `open`
/// may be written to unless `readOnly`.
Control::Result<OpenedNode> shareNode(const OpenNode& open, const NodeIdentity& identity,
                                      const std::string& path, bool readOnly);

}  // namespace Nbdd

template <>
struct std::hash<Nbdd::NodeIdentity> {
  std::size_t operator()(const Nbdd::NodeIdentity& identity) const noexcept {
    const std::uint64_t mixed = (static_cast<std::uint64_t>(identity.inode) * 0x9E3779B97F4A7C15U) ^
                                (static_cast<std::uint64_t>(identity.device) << 1) ^
                                static_cast<std::uint64_t>(identity.kind);
    return std::hash<std::uint64_t>{}(mixed);
  }
};
