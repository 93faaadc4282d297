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

/// What becomes of nodes that are taken away.
enum class NodeEnding {
  forGood,       ///< whoever uses them gets errors
  untilRestart,  ///< this process ends; a node that can outlive it waits for the next, for whoever uses it
};

/// One means by which programs of this host reach the content of an import. Lives on the import's thread.
class NodeInterface {
 public:
  virtual ~NodeInterface() = default;

  /// Makes the node; returns its path. `device` is connected, or was, and outlives it.
  virtual Control::Result<std::filesystem::path> open() = 0;
  /// Takes it away from whoever uses it, at once. Then await `closed` before it is destroyed.
  virtual void close(NodeEnding ending) = 0;
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
  std::string identity;             ///< of the import, among all of all services, for ever
  std::function<void()> changed;    ///< to be called when users() has become another number
};

/// A kind of node. Where a function is null there is nothing that it could do.
struct InterfaceKind {
  std::string_view name;
  /// What this host lacks for it, as a sentence; nothing if it lacks nothing. Any thread; must not block.
  std::optional<std::string> (*missing)();
  /// Not called while something is missing.
  std::unique_ptr<NodeInterface> (*make)(const NodeContext& context);
  /// Looks for a node that a predecessor of this process has left to programs that use it, and makes them
  /// wait for `open` in patience. Null: there is none. Called before the device was ever connected.
  std::unique_ptr<NodeInterface> (*inherit)(const NodeContext& context) = nullptr;
  /// Whether the node that was made at `path` is there still: others may take it away. Any thread; must not
  /// block.
  bool (*isThere)(const std::filesystem::path& path) = nullptr;
  /// How many use the node at `path`, where the node itself is not told. Any thread; must not block; may take
  /// some milliseconds.
  std::size_t (*countUsers)(const std::filesystem::path& path) = nullptr;
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
