#pragma once

#include <vector>

#include "platform/nbd_service.h"
#include "platform/string.h"

namespace Imports {

/// `compression <1|0>`: switches the compression of transfers on, for any number but 0, or off, for all
/// imports.
int compression(Ref<Services::NBD::Client::Service> service, std::vector<Ref<String>> words);

}  // namespace Imports
