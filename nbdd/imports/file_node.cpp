#include "nbdd/imports/file_node.h"

#include <fmt/core.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "nbdd/imports/file_session.h"

namespace Nbdd {

FileNode::FileNode(NodeContext context) : session_(std::make_unique<Session>(std::move(context))) {}

FileNode::~FileNode() = default;

std::optional<std::string> FileNode::missing() {
  if (::access("/dev/fuse", R_OK | W_OK) != 0) {
    return fmt::format("/dev/fuse: {}; load the module \"fuse\"", std::generic_category().message(errno));
  }
  const bool canMount = ::geteuid() == 0;
  for (const char* const helper :
       {"/usr/bin/fusermount3", "/bin/fusermount3", "/usr/local/bin/fusermount3"}) {
    if (canMount || ::access(helper, X_OK) == 0) return std::nullopt;
  }
  return "fusermount3, from the package fuse3";
}

Control::Result<std::filesystem::path> FileNode::open() { return session_->mount(); }

void FileNode::close() { session_->unmount(); }

Io::Task<void> FileNode::closed() { return session_->ended(); }

std::size_t FileNode::users() const { return session_->users(); }

}  // namespace Nbdd
