#pragma once

#include <vector>

#include "platform/nbd_service.h"
#include "platform/string.h"

/// The commands on the local server as a whole. Their words mean nothing, and they succeed for the command
/// loop even where they print an error.
namespace Server {

/// `start`, `s`: starts the server and names the endpoints that a firewall may close.
int start(Ref<Services::NBD::Client::Service> service, std::vector<Ref<String>> words);

/// `stop`: stops the server.
int stop(Ref<Services::NBD::Client::Service> service, std::vector<Ref<String>> words);

/// `caps`: shows what the server is able to do.
int caps(Ref<Services::NBD::Client::Service> service, std::vector<Ref<String>> words);

}  // namespace Server
