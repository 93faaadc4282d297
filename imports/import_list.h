#pragma once

#include <vector>

#include "platform/nbd_service.h"
#include "platform/string.h"

namespace Imports {

/// `ilist`: shows every import. Its words mean nothing.
int list(Ref<Services::NBD::Client::Service> service, std::vector<Ref<String>> words);

}  // namespace Imports
