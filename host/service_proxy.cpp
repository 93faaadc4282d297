#include "host/service_proxy.h"

#include <fmt/core.h>

#include <cstdio>
#include <tuple>
#include <utility>

#include "host/console.h"
#include "host/error.h"
#include "host/service_starter.h"

namespace Host {

namespace {

namespace Methods = Control::Methods;
namespace Types = Records::Types;
using Control::Failure;
using Control::FailureCode;
using Control::Result;

// Beside the number that the program prints: with nothing to talk to, it is all there is to go by.
void tellOperator(const Failure& failure) {
  const Control::FailureDescription* known = Control::describe(failure.code);
  fmt::print(stderr, "nbdctl: {}{}{}\n", failure.message, known != nullptr ? ". " : "",
             known != nullptr ? known->remedy : "");
}

void fail(const Failure& failure) { setError(static_cast<std::uint32_t>(failure.code)); }

Control::ExportId toControl(Types::ExportID id) { return static_cast<Control::ExportId>(id); }
Control::ImportId toControl(Types::ImportID id) { return static_cast<Control::ImportId>(id); }

// The platform's two forms of an outcome. Both leave the reason of a failure in Error::get().

template <class To, class From>
bool fill(std::vector<To>& output, const Result<std::vector<From>>& result) {
  if (!result) {
    fail(result.error());
    return false;
  }
  output.clear();
  output.reserve(result->size());
  for (const From& element : *result) output.push_back(Records::toPlatform(element));
  return true;
}

template <class From>
auto optionally(const Result<From>& result) -> std::optional<decltype(Records::toPlatform(*result))> {
  if (!result) {
    fail(result.error());
    return std::nullopt;
  }
  return Records::toPlatform(*result);
}

}  // namespace

Result<void> ServiceProxy::connect() {
  auto client = connectToService(location_, Clock::now() + patience_);
  if (!client) return std::unexpected(std::move(client.error()));
  client->setInterruption(interruption_.descriptor());
  client_ = std::move(*client);
  return {};
}

// Does one operation on a connection, which is made first if there is none.
template <class... Arguments, class... Given>
auto ServiceProxy::perform(const Control::Method<Arguments...>& method, const Given&... inputs)
    -> Result<typename Control::Method<Arguments...>::Output> {
  if (!client_ || !client_->isOpen()) {
    if (auto connected = connect(); !connected) return std::unexpected(std::move(connected.error()));
  }
  const Interruption::Wait wait(interruption_);
  return client_->call(method, inputs...);
}

// Does one operation; once more if the connection turns out to be dead and the service cannot have done it.
template <class... Arguments, class... Given>
auto ServiceProxy::ask(const Control::Method<Arguments...>& method, const Given&... inputs)
    -> Result<typename Control::Method<Arguments...>::Output> {
  flushOutput();
  abandonReadAhead();
  const bool mayBeStale = client_ && client_->isOpen();
  auto result = perform(method, inputs...);
  const bool neverArrived = !result && result.error().code == FailureCode::serviceUnavailable;
  if (mayBeStale && neverArrived && !client_->isOpen()) result = perform(method, inputs...);
  return result;
}

template <class... Arguments, class... Given>
bool ServiceProxy::succeeds(const Control::Method<Arguments...>& method, const Given&... inputs) {
  const auto result = ask(method, inputs...);
  if (!result) fail(result.error());
  return result.has_value();
}

// The operation of a listing that is expected next is answered from what was asked for ahead; any other, and
// one whose connection ended meanwhile, is an operation like all others.
template <const auto& method, class Id>
auto ServiceProxy::askAhead(ReadAhead<method, Id>& readAhead, Id id) ->
    typename ReadAhead<method, Id>::Answer {
  const bool noOtherOnTheWay = readAhead.outstanding() == answersOnTheWay();
  if (!client_ || !client_->isOpen() || !noOtherOnTheWay || !readAhead.expects(id)) return ask(method, id);
  if (client_->hasMessage()) return readAhead.take(*client_);
  flushOutput();
  auto answer = [&] {
    const Interruption::Wait wait(interruption_);
    return readAhead.take(*client_);
  }();
  const bool ended = !answer && (answer.error().code == FailureCode::serviceUnavailable ||
                                 answer.error().code == FailureCode::answerLost);
  return ended && !client_->isOpen() ? ask(method, id) : std::move(answer);
}

std::size_t ServiceProxy::answersOnTheWay() const {
  return infosAhead_.outstanding() + clientsAhead_.outstanding() + importsAhead_.outstanding();
}

void ServiceProxy::abandonReadAhead() {
  std::size_t onTheWay = answersOnTheWay();
  infosAhead_.forget();
  clientsAhead_.forget();
  importsAhead_.forget();
  const Interruption::Wait wait(interruption_);
  for (; onTheWay > 0 && client_ && client_->isOpen(); --onTheWay) std::ignore = client_->receiveMessage();
}

// The server.

bool ServiceProxy::serverStart(std::vector<Types::NetIfFirewallState>& endpoints) {
  return fill(endpoints, ask(Methods::serverStart));
}

bool ServiceProxy::serverStop() { return succeeds(Methods::serverStop); }

Types::ServerCapabilities ServiceProxy::serverCapabilities() {
  return optionally(ask(Methods::serverCapabilities)).value_or(Types::ServerCapabilities());
}

std::optional<Types::Variant> ServiceProxy::serverGetNamedProperties() {
  return optionally(ask(Methods::serverGetNamedProperties));
}

bool ServiceProxy::serverDiscover(std::vector<Types::RemoteServerDescriptor>& servers) {
  return fill(servers, ask(Methods::serverDiscover));
}

// Reservations.

bool ServiceProxy::serverEnableReservation(std::optional<Ref<String>> password) {
  const auto text = password ? std::optional(Records::toText(*password)) : std::nullopt;
  return succeeds(Methods::serverEnableReservation, text);
}

std::optional<Types::LocalServerReservationInfo> ServiceProxy::serverGetReservation() {
  return optionally(ask(Methods::serverGetReservation));
}

bool ServiceProxy::serverReserveRemote(const Types::RemoteServerReservationRequest& request) {
  return succeeds(Methods::serverReserveRemote, Records::toControl(request));
}

bool ServiceProxy::serverUnreserveRemote(Records::IPEndpoint server) {
  return succeeds(Methods::serverUnreserveRemote, Records::toControl(server));
}

bool ServiceProxy::serverListRemoteReservations(
    std::vector<Types::RemoteServerReservationInfo>& reservations) {
  return fill(reservations, ask(Methods::serverListRemoteReservations));
}

// Exports.

bool ServiceProxy::exportList(std::vector<Types::ExportID>& ids) {
  const auto list = ask(Methods::exportList);
  if (list) infosAhead_.expect(*list);
  return fill(ids, list);
}

std::optional<Types::ExportInfo> ServiceProxy::exportInfo(Types::ExportID id) {
  const auto info = askAhead(infosAhead_, toControl(id));
  if (info) clientsAhead_.expectAlso(toControl(id));
  return optionally(info);
}

bool ServiceProxy::exportGetClients(Types::ExportID id, std::vector<Types::ExportClientInfo>& clients) {
  return fill(clients, askAhead(clientsAhead_, toControl(id)));
}

bool ServiceProxy::exportGetStatistics(Types::ExportID id, Types::ExportStatistics& statistics) {
  const auto record = optionally(ask(Methods::exportGetStatistics, toControl(id)));
  if (record) statistics = *record;
  return record.has_value();
}

std::optional<Types::ExportID> ServiceProxy::exportAdd(const Types::ExportDescriptor& descriptor) {
  return optionally(ask(Methods::exportAdd, Records::toControl(descriptor)));
}

bool ServiceProxy::exportEnable(Types::ExportID id) { return succeeds(Methods::exportEnable, toControl(id)); }

bool ServiceProxy::exportDisable(Types::ExportID id, bool force) {
  return succeeds(Methods::exportDisable, toControl(id), force);
}

bool ServiceProxy::exportRemove(Types::ExportID id) { return succeeds(Methods::exportRemove, toControl(id)); }

// Imports.

bool ServiceProxy::importList(std::vector<Types::ImportID>& ids) {
  const auto list = ask(Methods::importList);
  if (list) importsAhead_.expect(*list);
  return fill(ids, list);
}

std::optional<Types::ImportInfo> ServiceProxy::importInfo(Types::ImportID id) {
  return optionally(askAhead(importsAhead_, toControl(id)));
}

std::optional<Types::ImportID> ServiceProxy::importAdd(const Types::ImportDescriptor& descriptor) {
  return optionally(ask(Methods::importAdd, Records::toControl(descriptor)));
}

bool ServiceProxy::importEnable(Types::ImportID id) { return succeeds(Methods::importEnable, toControl(id)); }

bool ServiceProxy::importDisable(Types::ImportID id, bool force) {
  return succeeds(Methods::importDisable, toControl(id), force);
}

bool ServiceProxy::importRemove(Types::ImportID id) { return succeeds(Methods::importRemove, toControl(id)); }

std::optional<Types::Variant> ServiceProxy::importListNodeInterfaces(Types::ImportID id) {
  return optionally(ask(Methods::importListNodeInterfaces, toControl(id)));
}

bool ServiceProxy::importEnableTransferCompression(bool enable) {
  return succeeds(Methods::importEnableTransferCompression, enable);
}

// Exports of remote servers.

std::optional<Types::RemoteExportList> ServiceProxy::fetchRemoteExports(Records::IPEndpoint server) {
  return fetch(server, std::nullopt);
}

std::optional<Types::RemoteExportList> ServiceProxy::fetchRemoteExports(
    Records::IPEndpoint server, std::unique_ptr<Libraries::DiskSpec::Expression> expression) {
  if (expression == nullptr) {
    fail({FailureCode::invalidArgument, "no expression was passed"});
    return std::nullopt;
  }
  return fetch(server, Records::toText(expression->text()));
}

std::optional<Types::RemoteExportList> ServiceProxy::fetch(Records::IPEndpoint server,
                                                           const std::optional<std::string>& expression) {
  auto list = optionally(ask(Methods::fetchRemoteExports, Records::toControl(server), expression));
  if (list) list->endpoint = server;
  return list;
}

}  // namespace Host

namespace Services::NBD::Client {

Ref<Service> Service::create(unsigned int timeoutMilliseconds) {
  Host::flushOutput();
  const auto proxy =
      makeRef<Host::ServiceProxy>(Host::findService(), std::chrono::milliseconds(timeoutMilliseconds));
  if (const auto connected = proxy->connect(); !connected) {
    // A service that did not start, or not in time, has said why itself.
    const Control::FailureCode code = connected.error().code;
    const bool told =
        code == Control::FailureCode::serviceStartFailed || code == Control::FailureCode::timeout;
    if (!told) Host::tellOperator(connected.error());
    Host::setError(static_cast<std::uint32_t>(connected.error().code));
    return {};
  }
  return proxy;
}

}  // namespace Services::NBD::Client
