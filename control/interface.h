#pragma once

#include <expected>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "control/failure.h"
#include "control/records.h"

namespace Control {

template <class T>
using Result = std::expected<T, Failure>;

/// Where the outcome of an operation goes. It is called once: before the operation returns or later, always
/// on the thread that asked. An answer that is dropped without a call tells the asker of an internal error.
template <class T>
using Answer = std::move_only_function<void(Result<T>)>;

/// The operations of the local NBD service: what `nbdd` implements and every client of the control socket
/// asks for.
///
/// All calls come from one thread. An operation takes its arguments by value, must not block for long, and
/// may answer after it has returned; calls of one client are made one at a time, those of several clients are
/// not.
class Service {
 public:
  virtual ~Service() = default;

  /// Listens for NBD clients. Answers the endpoints on which other hosts reach the server; asked of a started
  /// server, it changes nothing and answers the same.
  virtual void serverStart(Answer<std::vector<NetIfFirewallState>> answer) = 0;
  /// Stops listening and ends the clients after their running requests.
  virtual void serverStop(Answer<void> answer) = 0;
  virtual void serverCapabilities(Answer<Flags<ServerCapability>> answer) = 0;
  virtual void serverGetNamedProperties(Answer<Variant> answer) = 0;
  virtual void serverDiscover(Answer<std::vector<RemoteServerDescriptor>> answer) = 0;
  /// Sets the password with which others reserve this server; without one, reservation is switched off.
  virtual void serverEnableReservation(std::optional<std::string> password, Answer<void> answer) = 0;
  /// Who holds the reservation of this server; fails with notReserved when nobody does.
  virtual void serverGetReservation(Answer<LocalServerReservationInfo> answer) = 0;
  virtual void serverReserveRemote(RemoteServerReservationRequest request, Answer<void> answer) = 0;
  virtual void serverUnreserveRemote(Endpoint endpoint, Answer<void> answer) = 0;
  virtual void serverListRemoteReservations(Answer<std::vector<RemoteServerReservationInfo>> answer) = 0;

  /// The IDs of all exports, in the order in which they were added.
  virtual void exportList(Answer<std::vector<ExportId>> answer) = 0;
  virtual void exportInfo(ExportId id, Answer<ExportInfo> answer) = 0;
  virtual void exportGetClients(ExportId id, Answer<std::vector<ExportClientInfo>> answer) = 0;
  virtual void exportGetStatistics(ExportId id, Answer<ExportStatistics> answer) = 0;
  virtual void exportAdd(ExportDescriptor descriptor, Answer<ExportId> answer) = 0;
  virtual void exportEnable(ExportId id, Answer<void> answer) = 0;
  /// Takes no new clients. Connected ones finish at their leisure, or with `force` after their running
  /// requests.
  virtual void exportDisable(ExportId id, bool force, Answer<void> answer) = 0;
  virtual void exportRemove(ExportId id, Answer<void> answer) = 0;

  virtual void importList(Answer<std::vector<ImportId>> answer) = 0;
  virtual void importInfo(ImportId id, Answer<ImportInfo> answer) = 0;
  virtual void importAdd(ImportDescriptor descriptor, Answer<ImportId> answer) = 0;
  virtual void importEnable(ImportId id, Answer<void> answer) = 0;
  virtual void importDisable(ImportId id, bool force, Answer<void> answer) = 0;
  virtual void importRemove(ImportId id, Answer<void> answer) = 0;
  virtual void importListNodeInterfaces(ImportId id, Answer<Variant> answer) = 0;
  virtual void importEnableTransferCompression(bool enable, Answer<void> answer) = 0;

  /// The exports of a remote server, or with a DiskSpec `expression` (as text) those that match it.
  virtual void fetchRemoteExports(Endpoint endpoint, std::optional<std::string> expression,
                                  Answer<RemoteExportList> answer) = 0;
};

}  // namespace Control
