#pragma once

#include <functional>
#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "control/interface.h"

namespace Control::Testing {

/// One of each record, with every field set to something of its own.
namespace Samples {

inline const Endpoint endpoint{.address = "fe80::1%2", .port = 10809};

inline const Variant variant{
    {.name = "empty", .value = {}},
    {.name = "number", .value = std::uint64_t{18446744073709551615U}},
    {.name = "text", .value = std::string("Grüße, \"Welt\" \\ \n\x01")},
    {.name = "binary", .value = Binary{std::string("\0\xFF\x80", 3)}},
    {.name = "nested",
     .value = Variant{{.name = "", .value = std::uint64_t{0}}, {.name = "list", .value = Variant{}}}},
};

inline const ExportDescriptor exportDescriptor{.name = "disk.img",
                                               .node = "/srv/disk.img",
                                               .flags = {ExportFlag::readOnly},
                                               .elemCount = 18446744073709551615U,
                                               .elemSize = 512};

inline const ExportInfo exportInfo{.id = ExportId{4294967295},
                                   .descriptor = exportDescriptor,
                                   .state = ExportState::failed,
                                   .reason = ExportReason::accessError,
                                   .uuid = "0fc63daf-8483-4772-8e79-3d69d8477de4"};

inline const std::vector<ExportClientInfo> exportClients{{.endpoint = endpoint, .details = variant},
                                                         {.endpoint = {"10.0.0.5", 1}, .details = {}}};

inline const ExportStatistics exportStatistics{.rx = {1, 2, 3, 18446744073709551615U}, .tx = {5, 6, 7, 8}};

inline const ImportDescriptor importDescriptor{
    .name = "vol1",
    .server = endpoint,
    .flags = {ImportFlag::dontAnnounceStorage, ImportFlag::forceReadOnly}};

inline const ImportInfo importInfo{.id = ImportId{7},
                                   .descriptor = importDescriptor,
                                   .state = ImportState::connecting,
                                   .size = 1'073'741'824,
                                   .node = "/dev/nbd0",
                                   .connections = 4,
                                   .disableReason = ImportDisableReason::networkError,
                                   .description = "example"};

inline const std::vector<NetIfFirewallState> firewallStates{
    {.endpoint = endpoint, .interface = "eth0"}, {.endpoint = {"192.0.2.7", 10809}, .interface = {}}};

inline const std::vector<RemoteServerDescriptor> remoteServers{
    {.endpoint = endpoint, .properties = variant, .label = "storage"}};

inline const RemoteExportList remoteExports{
    .exports = {{.name = "a", .uuid = "u", .size = 18446744073709551615U, .flags = 3}, {.name = "b"}},
    .isTalvekServer = true,
    .properties = variant,
    .uuid = "server"};

inline const RemoteServerReservationRequest reservationRequest{
    .endpoint = endpoint, .password = "secret", .properties = variant};

inline const std::vector<RemoteServerReservationInfo> remoteReservations{{endpoint, variant}};
inline const LocalServerReservationInfo localReservation{endpoint, variant};

}  // namespace Samples

/// A service that records what it is asked and answers with samples, with `failure` once that is set, or
/// later: while `holding`, answers wait in `held` until somebody calls them.
class FakeService final : public Service {
 public:
  /// What was asked, in order: the operation's name and its inputs as text.
  std::vector<std::string> calls;
  std::optional<Failure> failure;
  std::function<void()> stopped;  ///< called after serverStop, if set
  bool holding = false;
  bool dropping = false;
  std::vector<std::move_only_function<void()>> held;

  std::vector<ExportId> exports{ExportId{1}, ExportId{4294967295}};
  ExportDescriptor addedExport;
  ImportDescriptor addedImport;
  std::vector<ImportId> imports{ImportId{7}};
  RemoteServerReservationRequest request;
  Endpoint endpoint;
  std::optional<std::string> text;

  void serverStart(Answer<std::vector<NetIfFirewallState>> answer) override {
    reply("serverStart", std::move(answer), Samples::firewallStates);
  }
  void serverStop(Answer<void> answer) override {
    reply("serverStop", std::move(answer));
    if (stopped) stopped();
  }
  void serverCapabilities(Answer<Flags<ServerCapability>> answer) override {
    reply("serverCapabilities", std::move(answer), Flags{ServerCapability::transferCompression});
  }
  void serverGetNamedProperties(Answer<Variant> answer) override {
    reply("serverGetNamedProperties", std::move(answer), Samples::variant);
  }
  void serverDiscover(Answer<std::vector<RemoteServerDescriptor>> answer) override {
    reply("serverDiscover", std::move(answer), Samples::remoteServers);
  }
  void serverEnableReservation(std::optional<std::string> password, Answer<void> answer) override {
    text = std::move(password);
    reply("serverEnableReservation", std::move(answer));
  }
  void serverGetReservation(Answer<LocalServerReservationInfo> answer) override {
    reply("serverGetReservation", std::move(answer), Samples::localReservation);
  }
  void serverReserveRemote(RemoteServerReservationRequest asked, Answer<void> answer) override {
    request = std::move(asked);
    reply("serverReserveRemote", std::move(answer));
  }
  void serverUnreserveRemote(Endpoint server, Answer<void> answer) override {
    endpoint = std::move(server);
    reply("serverUnreserveRemote", std::move(answer));
  }
  void serverListRemoteReservations(Answer<std::vector<RemoteServerReservationInfo>> answer) override {
    reply("serverListRemoteReservations", std::move(answer), Samples::remoteReservations);
  }

  void exportList(Answer<std::vector<ExportId>> answer) override {
    reply("exportList", std::move(answer), exports);
  }
  void exportInfo(ExportId id, Answer<ExportInfo> answer) override {
    ExportInfo info = Samples::exportInfo;
    info.id = id;
    reply(named("exportInfo", id), std::move(answer), std::move(info));
  }
  void exportGetClients(ExportId id, Answer<std::vector<ExportClientInfo>> answer) override {
    reply(named("exportGetClients", id), std::move(answer), Samples::exportClients);
  }
  void exportGetStatistics(ExportId id, Answer<ExportStatistics> answer) override {
    reply(named("exportGetStatistics", id), std::move(answer), Samples::exportStatistics);
  }
  void exportAdd(ExportDescriptor descriptor, Answer<ExportId> answer) override {
    addedExport = std::move(descriptor);
    reply("exportAdd", std::move(answer), ExportId{3});
  }
  void exportEnable(ExportId id, Answer<void> answer) override {
    reply(named("exportEnable", id), std::move(answer));
  }
  void exportDisable(ExportId id, bool force, Answer<void> answer) override {
    reply(named("exportDisable", id) + (force ? " force" : ""), std::move(answer));
  }
  void exportRemove(ExportId id, Answer<void> answer) override {
    reply(named("exportRemove", id), std::move(answer));
  }

  void importList(Answer<std::vector<ImportId>> answer) override {
    reply("importList", std::move(answer), imports);
  }
  void importInfo(ImportId id, Answer<ImportInfo> answer) override {
    ImportInfo info = Samples::importInfo;
    info.id = id;
    reply(named("importInfo", id), std::move(answer), info);
  }
  void importAdd(ImportDescriptor descriptor, Answer<ImportId> answer) override {
    addedImport = std::move(descriptor);
    reply("importAdd", std::move(answer), ImportId{9});
  }
  void importEnable(ImportId id, Answer<void> answer) override {
    reply(named("importEnable", id), std::move(answer));
  }
  void importDisable(ImportId id, bool force, Answer<void> answer) override {
    reply(named("importDisable", id) + (force ? " force" : ""), std::move(answer));
  }
  void importRemove(ImportId id, Answer<void> answer) override {
    reply(named("importRemove", id), std::move(answer));
  }
  void importListNodeInterfaces(ImportId id, Answer<Variant> answer) override {
    reply(named("importListNodeInterfaces", id), std::move(answer), Samples::variant);
  }
  void importEnableTransferCompression(bool enable, Answer<void> answer) override {
    reply(enable ? "importEnableTransferCompression on" : "importEnableTransferCompression off",
          std::move(answer));
  }

  void fetchRemoteExports(Endpoint server, std::optional<std::string> expression,
                          Answer<RemoteExportList> answer) override {
    endpoint = std::move(server);
    text = std::move(expression);
    reply("fetchRemoteExports", std::move(answer), Samples::remoteExports);
  }

 private:
  template <class Id>
  static std::string named(const char* name, Id id) {
    return std::string(name) + " " + std::to_string(static_cast<std::uint32_t>(id));
  }

  template <class T, class... Value>
  void reply(std::string call, Answer<T> answer, Value... value) {
    calls.push_back(std::move(call));
    if (dropping) return;
    std::move_only_function<void()> act = [this, answer = std::move(answer),
                                           ... kept = std::move(value)]() mutable {
      if (failure) {
        answer(std::unexpected(*failure));
      } else {
        answer(Result<T>(std::move(kept)...));
      }
    };
    if (holding) {
      held.push_back(std::move(act));
    } else {
      act();
    }
  }
};

}  // namespace Control::Testing
