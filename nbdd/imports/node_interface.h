#pragma once

#include <cstddef>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "control/failure.h"
#include "control/interface.h"
#include "nbdd/io/event_loop.h"
#include "nbdd/io/task.h"
#include "nbdd/remote/device.h"

namespace Nbdd {

/// One means by which programs of this host reach the content of an import. Lives on the import's thread.
class NodeInterface {
 public:
  virtual ~NodeInterface() = default;

  /// Makes the node; returns its path. `device` is connected, or was, and outlives it.
  virtual Control::Result<std::filesystem::path> open() = 0;
  /// Takes it away from whoever uses it, at once. Then await `closed` before it is destroyed.
  virtual void close() = 0;
  virtual Io::Task<void> closed() = 0;
  /// Compresses transfers on connections of its own to the server, or does not; the device's are not meant.
  virtual void setCompression(bool /*enable*/) {}
  /// How many programs have it open now, as far as that can be known.
  virtual std::size_t users() const = 0;
};

/// What every kind of node needs.
struct NodeContext {
  Io::EventLoop& loop;
  Remote::Device& device;
  std::filesystem::path directory;  ///< the import's own, which is there
  std::function<void()> changed;    ///< to be called when users() has become another number
};

/// A kind of node.
struct InterfaceKind {
  std::string_view name;
  /// What this host lacks for it, as a sentence; nothing if it lacks nothing. Any thread; must not block.
  std::optional<std::string> (*missing)();
  /// Not called while something is missing.
  std::unique_ptr<NodeInterface> (*make)(const NodeContext& context);
};

/// All kinds, the best first.
std::span<const InterfaceKind> interfaceKinds();

/// One node of an import, seen from outside.
struct NodeStatus {
  std::string_view name = {};
  std::string path = {};                    ///< empty unless it is active
  std::optional<std::string> missing = {};  ///< why it is not
  std::size_t users = 0;
};

}  // namespace Nbdd
