#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <type_traits>
#include <vector>

#include "control/client.h"
#include "control/methods.h"
#include "host/service_interruption.h"
#include "host/service_location.h"
#include "host/service_read_ahead.h"
#include "host/service_records.h"
#include "platform/nbd_service.h"

namespace Host {

/// The platform's NBD service by way of the control socket.
///
/// Each operation is one call. When the service has gone away between two operations, the next one starts it
/// again; but an operation that the service may have done is never sent twice.
class ServiceProxy final : public Services::NBD::Client::Service {
 public:
  using Clock = Control::Client::Clock;

  /// A proxy for the service at `location`, each connection to which may take `patience`.
  ServiceProxy(ServiceLocation location, Clock::duration patience)
      : location_(std::move(location)), patience_(patience) {}

  /// Connects now, starting the service if need be.
  Control::Result<void> connect();

  bool serverStart(std::vector<Records::Types::NetIfFirewallState>& endpoints) override;
  bool serverStop() override;
  Records::Types::ServerCapabilities serverCapabilities() override;
  std::optional<Records::Types::Variant> serverGetNamedProperties() override;
  bool serverDiscover(std::vector<Records::Types::RemoteServerDescriptor>& servers) override;
  bool serverEnableReservation(std::optional<Ref<String>> password) override;
  std::optional<Records::Types::LocalServerReservationInfo> serverGetReservation() override;
  bool serverReserveRemote(const Records::Types::RemoteServerReservationRequest& request) override;
  bool serverUnreserveRemote(Records::IPEndpoint server) override;
  bool serverListRemoteReservations(
      std::vector<Records::Types::RemoteServerReservationInfo>& reservations) override;

  bool exportList(std::vector<Records::Types::ExportID>& ids) override;
  std::optional<Records::Types::ExportInfo> exportInfo(Records::Types::ExportID id) override;
  bool exportGetClients(Records::Types::ExportID id,
                        std::vector<Records::Types::ExportClientInfo>& clients) override;
  bool exportGetStatistics(Records::Types::ExportID id,
                           Records::Types::ExportStatistics& statistics) override;
  std::optional<Records::Types::ExportID> exportAdd(
      const Records::Types::ExportDescriptor& descriptor) override;
  bool exportEnable(Records::Types::ExportID id) override;
  bool exportDisable(Records::Types::ExportID id, bool force) override;
  bool exportRemove(Records::Types::ExportID id) override;

  bool importList(std::vector<Records::Types::ImportID>& ids) override;
  std::optional<Records::Types::ImportInfo> importInfo(Records::Types::ImportID id) override;
  std::optional<Records::Types::ImportID> importAdd(
      const Records::Types::ImportDescriptor& descriptor) override;
  bool importEnable(Records::Types::ImportID id) override;
  bool importDisable(Records::Types::ImportID id, bool force) override;
  bool importRemove(Records::Types::ImportID id) override;
  std::optional<Records::Types::Variant> importListNodeInterfaces(Records::Types::ImportID id) override;
  bool importEnableTransferCompression(bool enable) override;

  std::optional<Records::Types::RemoteExportList> fetchRemoteExports(Records::IPEndpoint server) override;
  std::optional<Records::Types::RemoteExportList> fetchRemoteExports(
      Records::IPEndpoint server, std::unique_ptr<Libraries::DiskSpec::Expression> expression) override;

 private:
  template <class... Arguments, class... Given>
  auto ask(const Control::Method<Arguments...>& method, const Given&... inputs)
      -> Control::Result<typename Control::Method<Arguments...>::Output>;
  template <class... Arguments, class... Given>
  auto perform(const Control::Method<Arguments...>& method, const Given&... inputs)
      -> Control::Result<typename Control::Method<Arguments...>::Output>;
  template <const auto& method, class Id>
  auto askAhead(ReadAhead<method, Id>& readAhead, Id id) -> typename ReadAhead<method, Id>::Answer;
  std::size_t answersOnTheWay() const;
  template <class... Arguments, class... Given>
  bool succeeds(const Control::Method<Arguments...>& method, const Given&... inputs);
  std::optional<Records::Types::RemoteExportList> fetch(Records::IPEndpoint server,
                                                        const std::optional<std::string>& expression);
  void abandonReadAhead();

  ServiceLocation location_;
  Clock::duration patience_;
  Interruption interruption_;
  std::optional<Control::Client> client_;  // none before the first connection
  ReadAhead<Control::Methods::exportInfo, Control::ExportId> infosAhead_;
  ReadAhead<Control::Methods::exportGetClients, Control::ExportId> clientsAhead_;
  ReadAhead<Control::Methods::importInfo, Control::ImportId> importsAhead_;
};

}  // namespace Host
