#pragma once

#include <vector>

#include "platform/nbd_service.h"
#include "platform/string.h"

namespace Exports {

/// `list`, `ls`: shows every export with its clients. Its words mean nothing.
int list(Ref<Services::NBD::Client::Service> service, std::vector<Ref<String>> words);

}  // namespace Exports
