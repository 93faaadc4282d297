#pragma once

#include <vector>

#include "platform/nbd_service.h"
#include "platform/string.h"

namespace Imports {

/// `ilistnodes <ID>`: shows by which means an import's content can be reached on this host.
int listNodes(Ref<Services::NBD::Client::Service> service, std::vector<Ref<String>> words);

}  // namespace Imports
