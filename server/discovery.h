#pragma once

#include <vector>

#include "platform/nbd_service.h"
#include "platform/string.h"

/// The commands that look at all servers in the local network.
namespace Server {

/// `discover`: shows the servers that were found.
int discover(Ref<Services::NBD::Client::Service> service, std::vector<Ref<String>> words);

/// `diskspec <SpecString>`: shows the exports of these servers that a DiskSpec expression selects. The
/// servers do the selecting; one that cannot is reported in its place, and the others are asked all the same.
int diskspec(Ref<Services::NBD::Client::Service> service, std::vector<Ref<String>> words);

}  // namespace Server
