#include <array>
#include <filesystem>
#include <system_error>

#include "nbdd/imports/file_node.h"
#include "nbdd/imports/node_interface.h"
#include "nbdd/imports/socket_node.h"

namespace Nbdd {

namespace {

/// What the kernel's nbd driver would need. This version does not drive it even where it is there.
std::optional<std::string> missingForBlock() {
  std::error_code ignored;
  if (!std::filesystem::exists("/sys/module/nbd", ignored)) {
    return "the kernel's nbd driver, which is not loaded, and a later version of nbdd that makes use of it";
  }
  return "a later version of nbdd that makes use of the kernel's nbd driver";
}

constexpr std::array kinds{
    InterfaceKind{"block", missingForBlock, nullptr},
    InterfaceKind{"file", FileNode::missing, FileNode::make},
    InterfaceKind{"socket", SocketNode::missing, SocketNode::make},
};

}  // namespace

std::span<const InterfaceKind> interfaceKinds() { return kinds; }

}  // namespace Nbdd
