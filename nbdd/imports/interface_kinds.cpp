#include <array>

#include "nbdd/imports/block_node.h"
#include "nbdd/imports/file_node.h"
#include "nbdd/imports/mounts.h"
#include "nbdd/imports/node_interface.h"
#include "nbdd/imports/socket_node.h"

namespace Nbdd {

namespace {

constexpr std::array kinds{
    InterfaceKind{.name = "block",
                  .missing = BlockNode::missing,
                  .make = BlockNode::make,
                  .inherit = BlockNode::inherit,
                  .isThere = BlockNode::isThere,
                  .countUsers = BlockNode::countUsers},
    InterfaceKind{
        .name = "file", .missing = FileNode::missing, .make = FileNode::make, .isThere = isMountPoint},
    InterfaceKind{.name = "socket", .missing = SocketNode::missing, .make = SocketNode::make},
};

}  // namespace

std::span<const InterfaceKind> interfaceKinds() { return kinds; }

}  // namespace Nbdd
