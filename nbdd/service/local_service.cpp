#include "nbdd/service/local_service.h"

#include <fmt/core.h>

#include <algorithm>
#include <utility>

#include "diskspec/expression.h"
#include "nbdd/limits.h"
#include "nbdd/log/log.h"
#include "nbdd/remote/property_tree.h"
#include "nbdd/service/server_properties.h"
#include "talvek_version.h"

namespace Nbdd {

namespace {

using Control::Answer;
using Control::Failure;
using Control::FailureCode;

constexpr std::uint16_t usualPort = 10809;

Nbd::Extension::Hello helloOf(const SavedState& state) {
  return {.capabilities = Nbd::Extension::Capability::diskSpec,
          .server = Nbd::Extension::parseUuid(state.serverUuid).value_or(Nbd::Extension::Uuid{}),
          .product = fmt::format("Talvek NBD {}", talvekVersion)};
}

Remote::Place placeOf(const Control::Endpoint& endpoint) {
  return {.host = endpoint.address, .port = endpoint.port == 0 ? usualPort : endpoint.port};
}

Failure invalidExpression(const DiskSpec::Error& error) {
  return {FailureCode::expressionInvalid,
          fmt::format("the DiskSpec expression does not compile: {} (error {}, noticed at byte {})",
                      DiskSpec::sentenceOf(error.number), static_cast<unsigned>(error.number), error.offset)};
}

Reservations::Desk::Options deskOptions(std::chrono::seconds leaseTime) {
  Reservations::Desk::Options options = Reservations::Desk::usualOptions();
  options.lease = leaseTime;
  return options;
}

Failure endingFailure() { return {FailureCode::serviceStopping, "the service is about to end"}; }

}  // namespace

LocalService::LocalService(Io::EventLoop& loop, StateStore& store, SavedState state,
                           std::filesystem::path nodes, ListenConfiguration listening,
                           Reservations::Records& reservations, std::chrono::seconds leaseTime,
                           Server::Options serverOptions, Discovery::Options discovery)
    : loop_(loop),
      store_(store),
      saved_(std::move(state)),
      nodes_(std::move(nodes)),
      listening_(std::move(listening)),
      retryDelay_(Limits::listenRetryFirst),
      retry_(loop, [this] { listenAgain(); }),
      server_(
          loop, withExtension(std::move(serverOptions)),
          {.lastClientLeft = [this](Control::ExportId id) { registry_.lastClientLeft(id); },
           .storageFailed = [this](Control::ExportId id, int error) { registry_.storageFailed(id, error); },
           .properties = [this] { return Remote::flatten(namedProperties()); },
           .askDesk = [this](const Reservations::Client& client, Nbd::Extension::Kind kind,
                             const std::vector<std::byte>& body,
                             Reservations::Tell tell) { desk_.ask(client, kind, body, std::move(tell)); },
           .leftDesk = [this](std::uint64_t client) { desk_.left(client); }}),
      publisher_(server_),
      registry_(publisher_, [this] { return save(); }),
      imports_([this](const SavedImport& saved,
                      ImportEvents events) { return startImport(saved, std::move(events)); },
               [this] { return save(); }),
      listings_(loop, helloOf(saved_), Remote::Dialler::usualPatience(), importSecurity_),
      searches_(loop, helloOf(saved_),
                {.whole = Limits::searchAnswerTime, .address = Limits::searchConnectTime}, importSecurity_),
      search_(loop,
              [this](const Control::Endpoint& endpoint, Remote::Search::Expression expression,
                     Remote::Search::Answer answer) {
                searches_.fetch(placeOf(endpoint), std::move(expression), std::move(answer));
              }),
      discovery_(loop, std::move(discovery), saved_.serverUuid),
      reservations_(reservations),
      desk_(loop, server_, reservations, deskOptions(leaseTime)),
      remoteReservations_(loop, reservations, helloOf(saved_), importSecurity_) {}

LocalService::~LocalService() = default;

void LocalService::setSecurity(Security security) {
  server_.setAccess(std::move(security.access));
  importSecurity_->replace(std::move(security.imports));
}

void LocalService::restore() {
  registry_.restore(saved_);
  desk_.restore();
  remoteReservations_.restore();
  imports_.restore(saved_);
  if (saved_.serverStarted) listenAgain();
}

void LocalService::listenAgain() {
  if (const auto listened = server_.listen(listening_); !listened) {
    log(LogLevel::warning, "listen-again", "the server cannot listen again, next attempt in {} s: {}",
        std::chrono::duration<double>(retryDelay_).count(), listened.error().message);
    retry_.start(retryDelay_);
    retryDelay_ = std::min(2 * retryDelay_, Limits::listenRetryLongest);
    return;
  }
  log(LogLevel::info, "server-started", "the server listens on port {}", server_.port());
  discovery_.announce(server_.addresses());
}

Control::Result<void> LocalService::save() {
  registry_.describe(saved_);
  imports_.describe(saved_);
  auto stored = store_.save(saved_);
  if (!stored) log(LogLevel::error, "state-not-saved", "{}", stored.error().message);
  return stored;
}

Control::Result<void> LocalService::remember(bool started) {
  if (saved_.serverStarted == started) return {};
  saved_.serverStarted = started;
  auto stored = save();
  if (!stored) saved_.serverStarted = !started;
  return stored;
}

void LocalService::close(Io::Function done) {
  ending_ = true;
  retry_.cancel();
  ended_ = std::move(done);
  if (!closing_) closeServer();
  remoteReservations_.close();
  imports_.close([this] {
    importsClosed_ = true;
    endIfClosed();
  });
  listings_.close([this] {
    listingsClosed_ = true;
    endIfClosed();
  });
  searches_.close([this] {
    searchesClosed_ = true;
    endIfClosed();
  });
  discovery_.close([this] {
    discoveryClosed_ = true;
    endIfClosed();
  });
}

void LocalService::closeServer() {
  closing_ = true;
  if (server_.listening()) log(LogLevel::info, "server-stopping", "the server stops");
  discovery_.withdraw();
  server_.close([this] { serverClosed(); });
}

bool LocalService::active() const {
  return saved_.serverStarted || closing_ || registry_.activeCount() > 0 || imports_.activeCount() > 0 ||
         remoteReservations_.active() || server_.connectionCount() > 0;
}

std::string LocalService::summary() const {
  return fmt::format(
      "{} exports, {} of them served; {}; {} connections", registry_.size(), registry_.activeCount(),
      server_.listening() ? fmt::format("listening on port {}", server_.port()) : "not listening",
      server_.connectionCount());
}

// The server.

void LocalService::serverStart(Answer<std::vector<Control::NetIfFirewallState>> answer) {
  if (ending_) return answer(std::unexpected(endingFailure()));
  if (closing_) return startAnswers_.push_back(std::move(answer));
  answer(start());
}

Control::Result<std::vector<Control::NetIfFirewallState>> LocalService::start() {
  if (!server_.listening()) {
    if (auto prepared = prepareStart_ ? prepareStart_() : Control::Result<void>(); !prepared) {
      return std::unexpected(std::move(prepared.error()));
    }
    if (const auto listened = server_.listen(listening_); !listened) return std::unexpected(listened.error());
    if (auto remembered = remember(true); !remembered) {
      closeServer();
      return std::unexpected(std::move(remembered.error()));
    }
    retry_.cancel();
    retryDelay_ = Limits::listenRetryFirst;
    log(LogLevel::info, "server-started", "the server listens on port {}", server_.port());
    discovery_.announce(server_.addresses());
  }
  return server_.endpoints();
}

void LocalService::serverStop(Answer<void> answer) {
  if (ending_) return answer(std::unexpected(endingFailure()));
  if (closing_) return stopAnswers_.push_back(std::move(answer));
  if (auto remembered = remember(false); !remembered) return answer(std::move(remembered));
  retry_.cancel();
  retryDelay_ = Limits::listenRetryFirst;
  if (!server_.listening()) return answer({});
  stopAnswers_.push_back(std::move(answer));
  closeServer();
}

void LocalService::serverClosed() {
  closing_ = false;
  for (Answer<void>& answer : std::exchange(stopAnswers_, {})) answer({});
  for (auto& answer : std::exchange(startAnswers_, {})) serverStart(std::move(answer));
  endIfClosed();
}

void LocalService::endIfClosed() {
  const bool closed = importsClosed_ && listingsClosed_ && searchesClosed_ && discoveryClosed_;
  if (ended_ && !closing_ && closed) std::exchange(ended_, {})();
}

void LocalService::serverCapabilities(Answer<Control::Flags<Control::ServerCapability>> answer) {
  answer(Control::Flags{Control::ServerCapability::readWriteExports,
                        Control::ServerCapability::transferCompression});
}

void LocalService::serverGetNamedProperties(Answer<Control::Variant> answer) { answer(namedProperties()); }

Server::Options LocalService::withExtension(Server::Options options) const {
  options.extension = helloOf(saved_);
  options.extension->capabilities |= Nbd::Extension::Capability::compression;
  return options;
}

Control::Variant LocalService::namedProperties() const {
  return serverProperties(
      hostFacts(), {.uuid = saved_.serverUuid,
                    .uptime = std::chrono::duration_cast<std::chrono::seconds>(Io::Clock::now() - began_),
                    .activity = activity(),
                    .listening = server_.addresses(),
                    .reachableAt = server_.endpoints(),
                    .exports = registry_.size(),
                    .servedExports = registry_.activeCount(),
                    .clients = server_.clientCount(),
                    .imports = imports_.size(),
                    .usedImports = imports_.activeCount(),
                    .connections = server_.connectionCount(),
                    .storageEngine = server_.storageEngine(),
                    .eventLoops = server_.workerCount(),
                    .tls = server_.tlsMode()});
}

ServerActivity LocalService::activity() const {
  if (closing_) return ServerActivity::stopping;
  if (server_.listening()) return ServerActivity::listening;
  return saved_.serverStarted ? ServerActivity::waiting : ServerActivity::stopped;
}

void LocalService::serverDiscover(Answer<std::vector<Control::RemoteServerDescriptor>> answer) {
  if (ending_) return answer(std::unexpected(endingFailure()));
  discovery_.discover(std::move(answer));
}

// Reservations.

void LocalService::serverEnableReservation(std::optional<std::string> password, Answer<void> answer) {
  if (ending_) return answer(std::unexpected(endingFailure()));
  desk_.setPassword(std::move(password), std::move(answer));
}

void LocalService::serverGetReservation(Answer<Control::LocalServerReservationInfo> answer) {
  answer(desk_.holder());
}

void LocalService::serverReserveRemote(Control::RemoteServerReservationRequest request, Answer<void> answer) {
  if (ending_) return answer(std::unexpected(endingFailure()));
  remoteReservations_.reserve(std::move(request), std::move(answer));
}

void LocalService::serverUnreserveRemote(Control::Endpoint endpoint, Answer<void> answer) {
  if (ending_) return answer(std::unexpected(endingFailure()));
  remoteReservations_.unreserve(std::move(endpoint), std::move(answer));
}

void LocalService::serverListRemoteReservations(
    Answer<std::vector<Control::RemoteServerReservationInfo>> answer) {
  answer(remoteReservations_.list());
}

// Exports.

void LocalService::exportList(Answer<std::vector<Control::ExportId>> answer) { answer(registry_.list()); }

void LocalService::exportInfo(Control::ExportId id, Answer<Control::ExportInfo> answer) {
  answer(registry_.info(id));
}

void LocalService::exportGetClients(Control::ExportId id,
                                    Answer<std::vector<Control::ExportClientInfo>> answer) {
  answer(registry_.clients(id));
}

void LocalService::exportGetStatistics(Control::ExportId id, Answer<Control::ExportStatistics> answer) {
  answer(registry_.statistics(id));
}

void LocalService::exportAdd(Control::ExportDescriptor descriptor, Answer<Control::ExportId> answer) {
  if (ending_) return answer(std::unexpected(endingFailure()));
  answer(registry_.add(descriptor));
}

void LocalService::exportEnable(Control::ExportId id, Answer<void> answer) {
  if (ending_) return answer(std::unexpected(endingFailure()));
  answer(registry_.enable(id));
}

void LocalService::exportDisable(Control::ExportId id, bool force, Answer<void> answer) {
  if (ending_) return answer(std::unexpected(endingFailure()));
  if (force) return registry_.disableByForce(id, std::move(answer));
  answer(registry_.disable(id));
}

void LocalService::exportRemove(Control::ExportId id, Answer<void> answer) {
  if (ending_) return answer(std::unexpected(endingFailure()));
  answer(registry_.remove(id));
}

// Imports.

std::unique_ptr<ImportRun> LocalService::startImport(const SavedImport& saved, ImportEvents events) {
  const auto number = static_cast<std::uint32_t>(saved.id);
  RunningImport::Options options{.device = {.server = placeOf(saved.server),
                                            .exportName = saved.name,
                                            .readOnly = saved.flags.has(Control::ImportFlag::forceReadOnly),
                                            .compression = saved_.transferCompression,
                                            .self = helloOf(saved_),
                                            .reservations = &reservations_,
                                            .security = importSecurity_},
                                 .directory = nodes_ / std::to_string(number),
                                 .identity = fmt::format("nbdd/{}/{}", saved_.serverUuid, number)};
  return std::make_unique<RunningImport>(loop_, std::move(options), std::move(events));
}

void LocalService::importList(Answer<std::vector<Control::ImportId>> answer) { answer(imports_.list()); }

void LocalService::importInfo(Control::ImportId id, Answer<Control::ImportInfo> answer) {
  answer(imports_.info(id));
}

void LocalService::importAdd(Control::ImportDescriptor descriptor, Answer<Control::ImportId> answer) {
  if (ending_) return answer(std::unexpected(endingFailure()));
  answer(imports_.add(descriptor));
}

void LocalService::importEnable(Control::ImportId id, Answer<void> answer) {
  if (ending_) return answer(std::unexpected(endingFailure()));
  imports_.enable(id, std::move(answer));
}

void LocalService::importDisable(Control::ImportId id, bool force, Answer<void> answer) {
  if (ending_) return answer(std::unexpected(endingFailure()));
  imports_.disable(id, force, std::move(answer));
}

void LocalService::importRemove(Control::ImportId id, Answer<void> answer) {
  if (ending_) return answer(std::unexpected(endingFailure()));
  answer(imports_.remove(id));
}

void LocalService::importListNodeInterfaces(Control::ImportId id, Answer<Control::Variant> answer) {
  answer(imports_.nodeInterfaces(id));
}

void LocalService::importEnableTransferCompression(bool enable, Answer<void> answer) {
  if (ending_) return answer(std::unexpected(endingFailure()));
  if (saved_.transferCompression == enable) return answer({});
  saved_.transferCompression = enable;
  if (auto stored = save(); !stored) {
    saved_.transferCompression = !enable;
    return answer(std::move(stored));
  }
  imports_.setCompression(enable);
  answer({});
}

void LocalService::fetchRemoteExports(Control::Endpoint endpoint, std::optional<std::string> expression,
                                      Answer<Control::RemoteExportList> answer) {
  std::optional<std::vector<std::byte>> encoded;
  if (expression) {
    const auto compiled = DiskSpec::compile(*expression);
    if (!compiled) return answer(std::unexpected(invalidExpression(compiled.error())));
    encoded = DiskSpec::encode(*compiled);
    if (search_.fetch(endpoint, *encoded, discovery_.endpoints(), answer)) return;
  }
  listings_.fetch(placeOf(endpoint), std::move(encoded), std::move(answer));
}

}  // namespace Nbdd
