#pragma once

#include <vector>

#include "platform/nbd_service.h"
#include "platform/string.h"

namespace Server {

/// `props`: shows what the local server tells of itself.
int props(Ref<Services::NBD::Client::Service> service, std::vector<Ref<String>> words);

}  // namespace Server
