#include "server/reservations.h"

#include <cstdint>
#include <optional>

#include "platform/error.h"
#include "platform/network.h"
#include "shell/addresses.h"
#include "shell/command_table.h"
#include "shell/handler_steps.h"
#include "shell/output.h"

namespace Server {

namespace {

using namespace Services::NBD::Client::Types;
using Services::NBD::Client::Service;
using Shell::output;

constexpr const char* unexpected = "unexpected arguments";

/// Ends the progress line of a command on reservations, and returns the command's result. To be called right
/// after the call.
int endReservationProgress(bool success) {
  if (success) {
    output()->printText("OK!")->endLine();
    return Shell::succeeded;
  }
  const std::uint32_t code = Error::get();
  output()->printText("FAIL!")->printText(" (0x")->hex()->printU32(code)->printText(")")->endLine();
  return Shell::failed;
}

/// The same for a call on a remote server. Behind such a call the reason is read once whatever came of it,
/// and that of a failure again to be shown; the order of platform calls is part of these commands.
int endRemoteProgress(bool success) {
  static_cast<void>(Error::get());
  return endReservationProgress(success);
}

}  // namespace

int password(Ref<Service> service, std::vector<Ref<String>> words) {
  if (words.size() > 1) {
    return Shell::refuseWordsInOpenLine(unexpected);
  }
  std::optional<Ref<String>> word;
  if (words.empty()) {
    output()->printText("Disabling local password... ");
  } else {
    output()->printText("Setting local password... ");
    word = words[0];
  }
  return endReservationProgress(service->serverEnableReservation(word));
}

int reserve(Ref<Service> service, std::vector<Ref<String>> words) {
  if (words.size() != 2) {
    return Shell::refuseWordsInOpenLine(unexpected);
  }
  RemoteServerReservationRequest request;
  request.endpoint.address = Shell::IPAddress::parse(words[0]);
  request.password = words[1];
  output()
      ->printText("Reserving ")
      ->printString(words[0])
      ->printText(" with password <")
      ->printString(words[1])
      ->printText(">... ");
  return endRemoteProgress(service->serverReserveRemote(request));
}

int unreserve(Ref<Service> service, std::vector<Ref<String>> words) {
  if (words.size() != 1) {
    return Shell::refuseWordsInOpenLine(unexpected);
  }
  const IPEndpoint server{.address = Shell::IPAddress::parse(words[0]), .port = 0};
  output()->printText("Unreserving ")->printString(words[0])->printText("... ");
  return endRemoteProgress(service->serverUnreserveRemote(server));
}

int listReservations(Ref<Service> service, std::vector<Ref<String>> words) {
  if (!words.empty()) {
    return Shell::refuseWordsInOpenLine(unexpected);
  }
  std::vector<RemoteServerReservationInfo> reservations;
  if (!service->serverListRemoteReservations(reservations)) {
    Shell::printError("Failed to fetch list of remote reservations: error 0x");
    return Shell::failed;
  }
  output()->printText("Remote reservations: ")->printU64(reservations.size())->endLine();
  for (const RemoteServerReservationInfo& reservation : reservations) {
    output()->printText("- ")->printString(Shell::formatAddress(reservation.endpoint.address))->endLine();
  }
  return Shell::succeeded;
}

int checkReservation(Ref<Service> service, std::vector<Ref<String>> words) {
  if (!words.empty()) {
    return Shell::refuseWordsInOpenLine(unexpected);
  }
  const auto reservation = service->serverGetReservation();
  if (!reservation) {
    Shell::printError("Failed to fetch server reservation state: error 0x");
    return Shell::failed;
  }
  output()
      ->printText("Server is reserved by: ")
      ->printString(Shell::formatAddress(reservation->endpoint.address))
      ->endLine();
  return Shell::succeeded;
}

}  // namespace Server
