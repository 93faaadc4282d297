#pragma once

#include <vector>

#include "platform/nbd_service.h"
#include "platform/string.h"

namespace Imports {

/// `iadd <host> <name>`: attaches an export of a remote server. A third word means nothing.
int add(Ref<Services::NBD::Client::Service> service, std::vector<Ref<String>> words);

/// `ienable <ID>`: connects an import and offers its local node.
int enable(Ref<Services::NBD::Client::Service> service, std::vector<Ref<String>> words);

/// `idisable <ID>`: takes an import's local node away, always by force.
int disable(Ref<Services::NBD::Client::Service> service, std::vector<Ref<String>> words);

/// `iremove <ID>`: deletes an import.
int remove(Ref<Services::NBD::Client::Service> service, std::vector<Ref<String>> words);

}  // namespace Imports
