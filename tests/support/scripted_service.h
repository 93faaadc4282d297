#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/nbd_service.h"
#include "tests/support/scripted_platform.h"

namespace Support {

/// The service's side of a script: writes every call, with what was passed, into the platform's journal and
/// answers what the script says. Also says when it is released, if the platform traces the tear-down.
class ScriptedService final : public Services::NBD::Client::Service {
  using IPEndpoint = Services::NBD::Client::IPEndpoint;
  using Expression = Libraries::DiskSpec::Expression;
  using ExportID = Services::NBD::Client::Types::ExportID;
  using ImportID = Services::NBD::Client::Types::ImportID;
  using Variant = Services::NBD::Client::Types::Variant;

 public:
  explicit ScriptedService(Platform& platform) : platform_(platform) {}
  ScriptedService(const ScriptedService&) = delete;
  ScriptedService& operator=(const ScriptedService&) = delete;
  ~ScriptedService() override;

  bool serverStart(std::vector<Services::NBD::Client::Types::NetIfFirewallState>& endpoints) override;
  bool serverStop() override;
  Services::NBD::Client::Types::ServerCapabilities serverCapabilities() override;
  std::optional<Variant> serverGetNamedProperties() override;
  bool serverDiscover(std::vector<Services::NBD::Client::Types::RemoteServerDescriptor>& servers) override;
  bool serverEnableReservation(std::optional<Ref<String>> password) override;
  std::optional<Services::NBD::Client::Types::LocalServerReservationInfo> serverGetReservation() override;
  bool serverReserveRemote(
      const Services::NBD::Client::Types::RemoteServerReservationRequest& request) override;
  bool serverUnreserveRemote(IPEndpoint server) override;
  bool serverListRemoteReservations(
      std::vector<Services::NBD::Client::Types::RemoteServerReservationInfo>& reservations) override;

  bool exportList(std::vector<ExportID>& ids) override;
  std::optional<Services::NBD::Client::Types::ExportInfo> exportInfo(ExportID id) override;
  bool exportGetClients(ExportID id,
                        std::vector<Services::NBD::Client::Types::ExportClientInfo>& clients) override;
  bool exportGetStatistics(ExportID id, Services::NBD::Client::Types::ExportStatistics& statistics) override;
  std::optional<ExportID> exportAdd(
      const Services::NBD::Client::Types::ExportDescriptor& descriptor) override;
  bool exportEnable(ExportID id) override;
  bool exportDisable(ExportID id, bool force) override;
  bool exportRemove(ExportID id) override;

  bool importList(std::vector<ImportID>& ids) override;
  std::optional<Services::NBD::Client::Types::ImportInfo> importInfo(ImportID id) override;
  std::optional<ImportID> importAdd(
      const Services::NBD::Client::Types::ImportDescriptor& descriptor) override;
  bool importEnable(ImportID id) override;
  bool importDisable(ImportID id, bool force) override;
  bool importRemove(ImportID id) override;
  std::optional<Variant> importListNodeInterfaces(ImportID id) override;
  bool importEnableTransferCompression(bool enable) override;

  std::optional<Services::NBD::Client::Types::RemoteExportList> fetchRemoteExports(
      IPEndpoint server) override;
  std::optional<Services::NBD::Client::Types::RemoteExportList> fetchRemoteExports(
      IPEndpoint server, std::unique_ptr<Expression> expression) override;

 private:
  bool answer(const std::string& operation, const std::string& passed = {});

  Platform& platform_;
};

}  // namespace Support
