#pragma once

#include <list>
#include <memory>
#include <optional>
#include <string>

#include "nbd/export_view.h"
#include "nbdd/imports/node_interface.h"
#include "nbdd/imports/socket_client.h"
#include "nbdd/io/buffer.h"
#include "nbdd/io/file_descriptor.h"
#include "nbdd/io/scope.h"

namespace Nbdd {

/// The node "socket": NBD over a Unix socket, for any client that takes nbd+unix://. Needs nothing of the
/// host.
class SocketNode final : public NodeInterface, private Io::EventHandler {
 public:
  explicit SocketNode(NodeContext context);

  static std::optional<std::string> missing() { return std::nullopt; }
  static std::unique_ptr<NodeInterface> make(const NodeContext& context) {
    return std::make_unique<SocketNode>(context);
  }

  Control::Result<std::filesystem::path> open() override;
  void close(NodeEnding ending) override;
  Io::Task<void> closed() override;
  std::size_t users() const override;

 private:
  /// The import's only export, by the empty name.
  class Exports final : public Nbd::ExportDirectory {
   public:
    void set(const Remote::Device& device);
    std::optional<Nbd::ExportView> find(std::string_view name) const override;
    std::shared_ptr<const std::vector<Nbd::ListedExport>> list() const override;

   private:
    Nbd::ExportView view_;
  };

  void onEvents(std::uint32_t events) override;
  Io::Task<void> serve(Io::FileDescriptor socket);

  NodeContext context_;
  std::filesystem::path path_;
  Io::FileDescriptor listener_;
  Io::Timer retry_;
  Io::BufferPool buffers_;
  Exports exports_;
  std::list<SocketClient> clients_;
  Io::Scope scope_;
};

}  // namespace Nbdd
