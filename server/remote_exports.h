#pragma once

#include <vector>

#include "platform/nbd_service.h"
#include "platform/string.h"

namespace Server {

/// `rlist <server>`: shows what another server tells of itself and the exports that it offers.
int listRemote(Ref<Services::NBD::Client::Service> service, std::vector<Ref<String>> words);

}  // namespace Server
