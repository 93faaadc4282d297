#pragma once

#include <vector>

#include "platform/nbd_service.h"
#include "platform/string.h"

namespace Exports {

/// `add <node> [ro]`: exports a storage node, read-only if asked for.
int add(Ref<Services::NBD::Client::Service> service, std::vector<Ref<String>> words);

/// `enable <ID>`: offers an export to clients.
int enable(Ref<Services::NBD::Client::Service> service, std::vector<Ref<String>> words);

/// `disable <ID> [force]`: takes an export away from new clients, and from all if forced.
int disable(Ref<Services::NBD::Client::Service> service, std::vector<Ref<String>> words);

/// `remove <ID>`: deletes an export.
int remove(Ref<Services::NBD::Client::Service> service, std::vector<Ref<String>> words);

}  // namespace Exports
