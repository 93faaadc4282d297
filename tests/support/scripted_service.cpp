#include "tests/support/scripted_service.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <map>

#include "shell/addresses.h"
#include "tests/support/scripted_disk_spec.h"

namespace Support {

namespace {

using namespace Services::NBD::Client::Types;

std::string number(ExportID id) { return std::to_string(static_cast<std::uint32_t>(id)); }
std::string number(ImportID id) { return std::to_string(static_cast<std::uint32_t>(id)); }

std::string word(const Ref<String>& string) { return string ? std::string(string->view()) : "none"; }

std::string word(const IPEndpoint& endpoint) { return word(Shell::formatEndpoint(endpoint)); }

/// What `map` has for `key`, or the failure of an ID that is not known.
template <class Value>
std::optional<Value> find(Platform& platform, const std::map<std::uint32_t, Value>& map, std::uint32_t key) {
  const auto found = map.find(key);
  if (found == map.end()) {
    platform.setError(Script::unknownID);
    return std::nullopt;
  }
  return found->second;
}

template <class ID>
void fill(std::vector<ID>& ids, const std::vector<std::uint32_t>& numbers) {
  EXPECT_TRUE(ids.empty()) << "the vector is to be passed empty";
  std::ranges::transform(numbers, std::back_inserter(ids),
                         [](std::uint32_t id) { return static_cast<ID>(id); });
}

/// Fills a vector whether the operation succeeds or not: after a failure its content must not be looked at.
template <class Record>
void fill(std::vector<Record>& records, const std::vector<Record>& scripted) {
  EXPECT_TRUE(records.empty()) << "the vector is to be passed empty";
  records = scripted;
}

/// Tells in the journal when a list of servers is let go of.
class Witness final : public Object {
 public:
  explicit Witness(Platform& platform) : platform_(platform) {}
  Witness(const Witness&) = delete;
  Witness& operator=(const Witness&) = delete;
  ~Witness() override { platform_.record("servers released"); }

 private:
  Platform& platform_;
};

}  // namespace

ScriptedService::~ScriptedService() {
  if (platform_.isTracing()) {
    platform_.record("service released");
  }
}

bool ScriptedService::answer(const std::string& operation, const std::string& passed) {
  platform_.record(passed.empty() ? operation : operation + " " + passed);
  return !platform_.fails(operation);
}

bool ScriptedService::serverStart(std::vector<NetIfFirewallState>& endpoints) {
  fill(endpoints, platform_.script.firewall);
  return answer("serverStart");
}

bool ScriptedService::serverStop() { return answer("serverStop"); }

ServerCapabilities ScriptedService::serverCapabilities() {
  static_cast<void>(answer("serverCapabilities"));
  return ServerCapabilities(platform_.script.capabilities);
}

std::optional<Variant> ScriptedService::serverGetNamedProperties() {
  return answer("serverGetNamedProperties") ? std::optional(platform_.script.properties) : std::nullopt;
}

bool ScriptedService::serverDiscover(std::vector<RemoteServerDescriptor>& servers) {
  fill(servers, platform_.script.servers);
  if (!servers.empty() && platform_.isTracing()) {
    servers.front().source = makeRef<Witness>(platform_);
  }
  return answer("serverDiscover");
}

bool ScriptedService::serverEnableReservation(std::optional<Ref<String>> password) {
  return answer("serverEnableReservation", password ? "password=" + word(*password) : "no password");
}

std::optional<LocalServerReservationInfo> ScriptedService::serverGetReservation() {
  return answer("serverGetReservation") ? platform_.script.localReservation : std::nullopt;
}

bool ScriptedService::serverReserveRemote(const RemoteServerReservationRequest& request) {
  EXPECT_EQ(request.details.count(), 0U);
  return answer("serverReserveRemote", word(request.endpoint) + " password=" + word(request.password));
}

bool ScriptedService::serverUnreserveRemote(IPEndpoint server) {
  return answer("serverUnreserveRemote", word(server));
}

bool ScriptedService::serverListRemoteReservations(std::vector<RemoteServerReservationInfo>& reservations) {
  fill(reservations, platform_.script.remoteReservations);
  return answer("serverListRemoteReservations");
}

bool ScriptedService::exportList(std::vector<ExportID>& ids) {
  fill(ids, platform_.script.exportIDs);
  return answer("exportList");
}

std::optional<ExportInfo> ScriptedService::exportInfo(ExportID id) {
  if (!answer("exportInfo", number(id))) {
    return std::nullopt;
  }
  return find(platform_, platform_.script.exports, static_cast<std::uint32_t>(id));
}

bool ScriptedService::exportGetClients(ExportID id, std::vector<ExportClientInfo>& clients) {
  EXPECT_TRUE(clients.empty()) << "the vector is to be passed empty";
  if (!answer("exportGetClients", number(id))) {
    return false;
  }
  auto found = find(platform_, platform_.script.exportClients, static_cast<std::uint32_t>(id));
  clients = found.value_or(std::vector<ExportClientInfo>());
  return found.has_value();
}

bool ScriptedService::exportGetStatistics(ExportID id, ExportStatistics& statistics) {
  if (!answer("exportGetStatistics", number(id))) {
    return false;
  }
  const auto found = find(platform_, platform_.script.exportStatistics, static_cast<std::uint32_t>(id));
  statistics = found.value_or(ExportStatistics());
  return found.has_value();
}

std::optional<ExportID> ScriptedService::exportAdd(const ExportDescriptor& descriptor) {
  const bool success =
      answer("exportAdd", "name=" + word(descriptor.name) + " node=" + word(descriptor.node) +
                              " flags=" + std::to_string(descriptor.flags) +
                              " elements=" + std::to_string(descriptor.elemCount) + "*" +
                              std::to_string(descriptor.elemSize));
  return success ? std::optional(static_cast<ExportID>(platform_.script.addedID)) : std::nullopt;
}

bool ScriptedService::exportEnable(ExportID id) { return answer("exportEnable", number(id)); }

bool ScriptedService::exportDisable(ExportID id, bool force) {
  return answer("exportDisable", number(id) + (force ? " force" : ""));
}

bool ScriptedService::exportRemove(ExportID id) { return answer("exportRemove", number(id)); }

bool ScriptedService::importList(std::vector<ImportID>& ids) {
  fill(ids, platform_.script.importIDs);
  return answer("importList");
}

std::optional<ImportInfo> ScriptedService::importInfo(ImportID id) {
  if (!answer("importInfo", number(id))) {
    return std::nullopt;
  }
  return find(platform_, platform_.script.imports, static_cast<std::uint32_t>(id));
}

std::optional<ImportID> ScriptedService::importAdd(const ImportDescriptor& descriptor) {
  const bool success =
      answer("importAdd", "name=" + word(descriptor.name) + " server=" + word(descriptor.server) +
                              " flags=" + std::to_string(descriptor.flags));
  return success ? std::optional(static_cast<ImportID>(platform_.script.addedID)) : std::nullopt;
}

bool ScriptedService::importEnable(ImportID id) { return answer("importEnable", number(id)); }

bool ScriptedService::importDisable(ImportID id, bool force) {
  return answer("importDisable", number(id) + (force ? " force" : ""));
}

bool ScriptedService::importRemove(ImportID id) { return answer("importRemove", number(id)); }

std::optional<Variant> ScriptedService::importListNodeInterfaces(ImportID id) {
  return answer("importListNodeInterfaces", number(id)) ? std::optional(platform_.script.nodeInterfaces)
                                                        : std::nullopt;
}

bool ScriptedService::importEnableTransferCompression(bool enable) {
  return answer("importEnableTransferCompression", enable ? "on" : "off");
}

std::optional<RemoteExportList> ScriptedService::fetchRemoteExports(IPEndpoint server) {
  const auto found = platform_.script.remoteExports.find(word(server));
  if (!answer("fetchRemoteExports", word(server)) || found == platform_.script.remoteExports.end()) {
    return std::nullopt;
  }
  return found->second;
}

std::optional<RemoteExportList> ScriptedService::fetchRemoteExports(IPEndpoint server,
                                                                    std::unique_ptr<Expression> expression) {
  const auto found = platform_.script.remoteExports.find(word(server));
  const bool success = answer("fetchRemoteExports", word(server) + " " + word(expression->text()));
  dynamic_cast<ScriptedExpression&>(*expression).spoil();
  if (!success || found == platform_.script.remoteExports.end()) {
    return std::nullopt;
  }
  return found->second;
}

}  // namespace Support
