#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "nbdd/imports/node_interface.h"
#include "nbdd/io/buffer.h"
#include "nbdd/io/scope.h"
#include "nbdd/io/signal.h"

namespace Nbdd {

/// The node "file": a regular file of the export's size, by FUSE. Needs /dev/fuse, and for users other than
/// root fusermount3. Works like a disk rather than like a file: its size is fixed.
class FileNode final : public NodeInterface {
 public:
  explicit FileNode(NodeContext context);
  ~FileNode() override;

  static std::optional<std::string> missing();
  static std::unique_ptr<NodeInterface> make(const NodeContext& context) {
    return std::make_unique<FileNode>(context);
  }

  Control::Result<std::filesystem::path> open() override;
  void close() override;
  Io::Task<void> closed() override;
  std::size_t users() const override;

 private:
  class Session;
  std::unique_ptr<Session> session_;
};

}  // namespace Nbdd
