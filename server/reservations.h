#pragma once

#include <vector>

#include "platform/nbd_service.h"
#include "platform/string.h"

/// The commands on reservations: who may use a server alone. Passwords are passed on and not kept.
namespace Server {

/// `password [<password>]`: lets the local server be reserved by those who know the password, or by nobody.
int password(Ref<Services::NBD::Client::Service> service, std::vector<Ref<String>> words);

/// `reserve <host> <password>`: reserves a remote server for this host.
int reserve(Ref<Services::NBD::Client::Service> service, std::vector<Ref<String>> words);

/// `unreserve <host>`: gives the reservation of a remote server up.
int unreserve(Ref<Services::NBD::Client::Service> service, std::vector<Ref<String>> words);

/// `reslist`: shows the remote servers that this host has reserved.
int listReservations(Ref<Services::NBD::Client::Service> service, std::vector<Ref<String>> words);

/// `rescheck`: shows who has reserved the local server.
int checkReservation(Ref<Services::NBD::Client::Service> service, std::vector<Ref<String>> words);

}  // namespace Server
