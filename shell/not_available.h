#pragma once

#include <vector>

#include "platform/nbd_service.h"
#include "platform/string.h"

namespace Shell {

/// Stands in for every command that this version does not have, and says so.
int notAvailable(Ref<Services::NBD::Client::Service> service, std::vector<Ref<String>> words);

}  // namespace Shell
