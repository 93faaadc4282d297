#pragma once

#include <vector>

#include "platform/nbd_service.h"
#include "platform/string.h"

namespace Shell {

/// `help`: shows every command that has a help text. Its words mean nothing.
int help(Ref<Services::NBD::Client::Service> service, std::vector<Ref<String>> words);

}  // namespace Shell
