#pragma once

#include <cstddef>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "nbdd/imports/file_lane.h"
#include "nbdd/imports/file_worker.h"
#include "nbdd/imports/fuse_mount.h"
#include "nbdd/imports/node_interface.h"
#include "nbdd/io/signal.h"

namespace Nbdd {

/// The node "file": a regular file of the export's size, by FUSE. Needs /dev/fuse, and for users other than
/// root fusermount3. Works like a disk rather than like a file: its size is fixed.
class FileNode final : public NodeInterface {
 public:
  explicit FileNode(NodeContext context);

  static std::optional<std::string> missing();
  static std::unique_ptr<NodeInterface> make(const NodeContext& context) {
    return std::make_unique<FileNode>(context);
  }

  Control::Result<std::filesystem::path> open() override;
  void close(NodeEnding ending) override;
  Io::Task<void> closed() override;
  void setCompression(bool enable) override;
  std::size_t users() const override;

 private:
  void openLanes();

  NodeContext context_;
  FileUsers users_;
  FuseMount mount_;
  FileWorker worker_;  // on the import's loop
  std::vector<std::unique_ptr<FileLane>> lanes_;
  std::size_t running_ = 0;  // of them
  Io::Signal laneEnded_;
  bool closed_ = false;
};

}  // namespace Nbdd
