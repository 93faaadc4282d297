#pragma once

#include <memory>
#include <optional>
#include <vector>

#include "platform/disk_spec.h"
#include "platform/nbd_types.h"
#include "platform/network.h"
#include "platform/object.h"
#include "platform/string.h"

namespace Services::NBD::Client {

using Network::Definitions::IPEndpoint;

/// The client's side of the local NBD service.
///
/// Every operation is one synchronous exchange with the service and may block until it has answered. An
/// operation that returns bool reports failure with false, one that returns an optional with an empty one;
/// the reason is then in `Error::get()`. A vector passed by reference is empty when the call is made and
/// holds the answer after a success; after a failure its content means nothing. Text and records are taken
/// over or copied: the caller may let go of everything it passed as soon as the call returns. For use by one
/// thread.
class Service : public Object {
 public:
  /// Connects to the service, starting it if need be, within `timeoutMilliseconds`. An empty Ref if it cannot
  /// be reached; the reason is then in `Error::get()`.
  [[nodiscard]] static Ref<Service> create(unsigned int timeoutMilliseconds);

  // ---- The local server.

  /// Starts the server; one that runs already is no failure. The vector receives the endpoints on which other
  /// hosts should reach it, possibly none.
  [[nodiscard]] virtual bool serverStart(std::vector<Types::NetIfFirewallState>& endpoints) = 0;

  /// Stops the server and ends its clients.
  [[nodiscard]] virtual bool serverStop() = 0;

  /// What the server is able to do. The empty set also stands for a service that does not answer.
  [[nodiscard]] virtual Types::ServerCapabilities serverCapabilities() = 0;

  /// The server's properties.
  [[nodiscard]] virtual std::optional<Types::Variant> serverGetNamedProperties() = 0;

  /// Looks for servers in the local network. May take seconds.
  [[nodiscard]] virtual bool serverDiscover(std::vector<Types::RemoteServerDescriptor>& servers) = 0;

  // ---- Reservations.

  /// Lets the local server be reserved by those who know `password`, or by nobody if there is none.
  [[nodiscard]] virtual bool serverEnableReservation(std::optional<Ref<String>> password) = 0;

  /// Who has reserved the local server. That nobody has is a failure.
  [[nodiscard]] virtual std::optional<Types::LocalServerReservationInfo> serverGetReservation() = 0;

  /// Reserves a remote server for this host.
  [[nodiscard]] virtual bool serverReserveRemote(const Types::RemoteServerReservationRequest& request) = 0;

  /// Gives up the reservation of the remote server at `server`.
  [[nodiscard]] virtual bool serverUnreserveRemote(IPEndpoint server) = 0;

  /// The remote servers that this host has reserved.
  [[nodiscard]] virtual bool serverListRemoteReservations(
      std::vector<Types::RemoteServerReservationInfo>& reservations) = 0;

  // ---- Exports.

  /// The numbers of all exports, in the service's order.
  [[nodiscard]] virtual bool exportList(std::vector<Types::ExportID>& ids) = 0;

  /// One export.
  [[nodiscard]] virtual std::optional<Types::ExportInfo> exportInfo(Types::ExportID id) = 0;

  /// The clients that are connected to one export.
  [[nodiscard]] virtual bool exportGetClients(Types::ExportID id,
                                              std::vector<Types::ExportClientInfo>& clients) = 0;

  /// What has been transferred for one export.
  [[nodiscard]] virtual bool exportGetStatistics(Types::ExportID id, Types::ExportStatistics& statistics) = 0;

  /// Adds an export. It is not enabled yet.
  [[nodiscard]] virtual std::optional<Types::ExportID> exportAdd(
      const Types::ExportDescriptor& descriptor) = 0;

  /// Offers an export to clients.
  [[nodiscard]] virtual bool exportEnable(Types::ExportID id) = 0;

  /// Takes an export away from new clients. Those that are connected may finish, unless `force` ends them.
  [[nodiscard]] virtual bool exportDisable(Types::ExportID id, bool force) = 0;

  /// Forgets an export.
  [[nodiscard]] virtual bool exportRemove(Types::ExportID id) = 0;

  // ---- Imports.

  /// The numbers of all imports, in the service's order.
  [[nodiscard]] virtual bool importList(std::vector<Types::ImportID>& ids) = 0;

  /// One import.
  [[nodiscard]] virtual std::optional<Types::ImportInfo> importInfo(Types::ImportID id) = 0;

  /// Adds an import. It is not enabled yet.
  [[nodiscard]] virtual std::optional<Types::ImportID> importAdd(
      const Types::ImportDescriptor& descriptor) = 0;

  /// Connects an import and offers its local node.
  [[nodiscard]] virtual bool importEnable(Types::ImportID id) = 0;

  /// Takes an import's local node away, also from those who use it if `force` is set.
  [[nodiscard]] virtual bool importDisable(Types::ImportID id, bool force) = 0;

  /// Forgets an import.
  [[nodiscard]] virtual bool importRemove(Types::ImportID id) = 0;

  /// The ways in which an import's content is offered locally.
  [[nodiscard]] virtual std::optional<Types::Variant> importListNodeInterfaces(Types::ImportID id) = 0;

  /// Switches the compression of transfers on or off for all imports.
  [[nodiscard]] virtual bool importEnableTransferCompression(bool enable) = 0;

  // ---- Exports of remote servers.

  /// What the server at `server` offers. May take as long as the network does.
  [[nodiscard]] virtual std::optional<Types::RemoteExportList> fetchRemoteExports(IPEndpoint server) = 0;

  /// The same, limited to the exports that match `expression`, which the call takes over.
  [[nodiscard]] virtual std::optional<Types::RemoteExportList> fetchRemoteExports(
      IPEndpoint server, std::unique_ptr<Libraries::DiskSpec::Expression> expression) = 0;
};

}  // namespace Services::NBD::Client
