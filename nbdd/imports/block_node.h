#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <expected>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "nbd/validation.h"
#include "nbdd/imports/nbd_netlink.h"
#include "nbdd/imports/node_interface.h"
#include "nbdd/imports/socket_client.h"
#include "nbdd/io/buffer.h"
#include "nbdd/io/file_descriptor.h"
#include "nbdd/io/scope.h"
#include "nbdd/io/signal.h"

namespace Nbdd {

/// The node "block": a block device of the kernel's nbd driver, which is given one end of a pair of sockets
/// and speaks NBD to us at the other. Its path is a symbolic link, which stays when the device becomes
/// another. Needs the driver and CAP_SYS_ADMIN.
///
/// The kernel is given one connection, and all the time in the world for each request on it. With several, or
/// with a limit of time, the driver asks again on another connection what it has waited for too long, and a
/// write could be done a second time after a newer one.
class BlockNode final : public NodeInterface {
 public:
  explicit BlockNode(NodeContext context);
  ~BlockNode() override;

  static std::optional<std::string> missing();
  static std::unique_ptr<NodeInterface> make(const NodeContext& context) {
    return std::make_unique<BlockNode>(context);
  }
  static std::unique_ptr<NodeInterface> inherit(const NodeContext& context);
  static bool isThere(const std::filesystem::path& path);
  static std::size_t countUsers(const std::filesystem::path& path);

  Control::Result<std::filesystem::path> open() override;
  void close(NodeEnding ending) override;
  Io::Task<void> closed() override;
  std::size_t users() const override { return 0; }  // who uses it is not told: countUsers()

 private:
  bool takeOver();
  std::expected<void, std::string> attach();
  std::expected<void, std::string> connect(const NbdNetlink::Settings& settings);
  std::expected<void, std::string> link() const;
  void disconnect();
  Io::Task<void> serve();
  Io::Task<void> serveConnection();
  Io::Task<void> pause(std::chrono::milliseconds time);
  std::expected<NbdNetlink::Settings, std::string> settings() const;
  Nbd::ExportLimits limits() const;

  NodeContext context_;
  std::filesystem::path path_;
  std::optional<std::uint32_t> index_;
  bool inherited_ = false;
  bool closing_ = false;
  Io::FileDescriptor socket_;  // our end of a connection that the kernel has, before it is used
  Io::BufferPool buffers_;
  SocketClient* client_ = nullptr;
  Io::Signal wake_;
  Io::Scope scope_;
};

}  // namespace Nbdd
