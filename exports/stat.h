#pragma once

#include <vector>

#include "platform/nbd_service.h"
#include "platform/string.h"

namespace Exports {

/// `stat <ID>`: shows what has been transferred for one export.
int stat(Ref<Services::NBD::Client::Service> service, std::vector<Ref<String>> words);

}  // namespace Exports
