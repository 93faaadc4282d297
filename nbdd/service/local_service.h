#pragma once

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "control/interface.h"
#include "nbdd/discovery/discovery.h"
#include "nbdd/exports/registry.h"
#include "nbdd/imports/import_registry.h"
#include "nbdd/io/event_loop.h"
#include "nbdd/remote/listings.h"
#include "nbdd/remote/search.h"
#include "nbdd/remote/security.h"
#include "nbdd/reservations/desk.h"
#include "nbdd/reservations/remote_reservations.h"
#include "nbdd/server/access.h"
#include "nbdd/server/server.h"
#include "nbdd/service/server_properties.h"
#include "nbdd/state/state_store.h"

namespace Nbdd {

/// What the configuration says about who may come, and how connections are secured. Replaced as a whole.
struct Security {
  std::shared_ptr<const Access> access = std::make_shared<const Access>();
  Remote::Security imports;
};

/// The operations of the control socket, done by the registries and the NBD server of this process.
///
/// Keeps what has to survive in a StateStore: a started server listens again after a restart, and if it
/// cannot (another program took the port meanwhile), it goes on trying, less and less often. Everything
/// belongs to the thread of the control loop.
class LocalService final : public Control::Service {
 public:
  /// Starts the server's threads. `store`, `reservations` and `loop` outlive this; `state` is what was loaded
  /// from `store`. Throws std::system_error if the system refuses the threads (start-up only). `nodes`: the
  /// directory for the nodes of imports; made when it is needed. `leaseTime`: how long a reservation of this
  /// server lasts without being renewed.
  LocalService(Io::EventLoop& loop, StateStore& store, SavedState state, std::filesystem::path nodes,
               ListenConfiguration listening, Reservations::Records& reservations,
               std::chrono::seconds leaseTime, Server::Options serverOptions = {},
               Discovery::Options discovery = {});
  ~LocalService() override;
  LocalService(const LocalService&) = delete;
  LocalService& operator=(const LocalService&) = delete;

  /// Holds for clients that come, and connections of imports that are made, from now on.
  void setSecurity(Security security);

  /// Where the server listens when it is next started.
  void setListening(ListenConfiguration listening) { listening_ = std::move(listening); }

  /// `prepare` is called before a server that does not listen is started by an operator. It may call the two
  /// above; if it fails, the server is not started.
  void beforeStart(std::move_only_function<Control::Result<void>()> prepare) {
    prepareStart_ = std::move(prepare);
  }

  /// Brings back what was saved: enabled exports, then the started server. Once, before the first operation.
  void restore();

  /// Stops serving without forgetting that it should: the end of the process. Calls `done` when every session
  /// has ended; operations that would start something fail from now on.
  void close(Io::Function done);

  /// Whether something here needs the process: a started server, or an export that is served.
  bool active() const;
  /// Exports that are held and served, and clients, as one short line for people.
  std::string summary() const;

  void serverStart(Control::Answer<std::vector<Control::NetIfFirewallState>> answer) override;
  void serverStop(Control::Answer<void> answer) override;
  void serverCapabilities(Control::Answer<Control::Flags<Control::ServerCapability>> answer) override;
  void serverGetNamedProperties(Control::Answer<Control::Variant> answer) override;
  void serverDiscover(Control::Answer<std::vector<Control::RemoteServerDescriptor>> answer) override;
  void serverEnableReservation(std::optional<std::string> password, Control::Answer<void> answer) override;
  void serverGetReservation(Control::Answer<Control::LocalServerReservationInfo> answer) override;
  void serverReserveRemote(Control::RemoteServerReservationRequest request,
                           Control::Answer<void> answer) override;
  void serverUnreserveRemote(Control::Endpoint endpoint, Control::Answer<void> answer) override;
  void serverListRemoteReservations(
      Control::Answer<std::vector<Control::RemoteServerReservationInfo>> answer) override;

  void exportList(Control::Answer<std::vector<Control::ExportId>> answer) override;
  void exportInfo(Control::ExportId id, Control::Answer<Control::ExportInfo> answer) override;
  void exportGetClients(Control::ExportId id,
                        Control::Answer<std::vector<Control::ExportClientInfo>> answer) override;
  void exportGetStatistics(Control::ExportId id, Control::Answer<Control::ExportStatistics> answer) override;
  void exportAdd(Control::ExportDescriptor descriptor, Control::Answer<Control::ExportId> answer) override;
  void exportEnable(Control::ExportId id, Control::Answer<void> answer) override;
  void exportDisable(Control::ExportId id, bool force, Control::Answer<void> answer) override;
  void exportRemove(Control::ExportId id, Control::Answer<void> answer) override;

  void importList(Control::Answer<std::vector<Control::ImportId>> answer) override;
  void importInfo(Control::ImportId id, Control::Answer<Control::ImportInfo> answer) override;
  void importAdd(Control::ImportDescriptor descriptor, Control::Answer<Control::ImportId> answer) override;
  void importEnable(Control::ImportId id, Control::Answer<void> answer) override;
  void importDisable(Control::ImportId id, bool force, Control::Answer<void> answer) override;
  void importRemove(Control::ImportId id, Control::Answer<void> answer) override;
  void importListNodeInterfaces(Control::ImportId id, Control::Answer<Control::Variant> answer) override;
  void importEnableTransferCompression(bool enable, Control::Answer<void> answer) override;

  void fetchRemoteExports(Control::Endpoint endpoint, std::optional<std::string> expression,
                          Control::Answer<Control::RemoteExportList> answer) override;

 private:
  /// The registry's view of the server.
  class Publisher final : public ExportPublisher {
   public:
    explicit Publisher(Server& server) : server_(server) {}
    void publish(Publication publication) override { server_.publish(std::move(publication)); }
    void withdraw(Control::ExportId id) override { server_.withdraw(id); }
    void endSessions(Control::ExportId id, std::move_only_function<void()> done) override {
      server_.endSessions(id, std::move(done));
    }
    std::vector<Control::ExportClientInfo> clients(Control::ExportId id) const override {
      return server_.clients(id);
    }
    std::size_t clientCount(Control::ExportId id) const override { return server_.clientCount(id); }

   private:
    Server& server_;
  };

  ServerActivity activity() const;
  Control::Variant namedProperties() const;
  Server::Options withExtension(Server::Options options) const;
  Control::Result<void> save();
  Control::Result<std::vector<Control::NetIfFirewallState>> start();
  Control::Result<void> remember(bool started);
  /// Listens again after a restart, and if that fails, later once more.
  void listenAgain();
  void closeServer();
  void serverClosed();
  std::unique_ptr<ImportRun> startImport(const SavedImport& saved, ImportEvents events);
  void endIfClosed();

  const Io::Clock::time_point began_ = Io::Clock::now();
  Io::EventLoop& loop_;
  StateStore& store_;
  SavedState saved_;
  const std::filesystem::path nodes_;
  ListenConfiguration listening_;
  std::move_only_function<Control::Result<void>()> prepareStart_;

  // The server is closing: who asked for it, and who asks for a new start meanwhile.
  bool closing_ = false;
  bool ending_ = false;
  std::vector<Control::Answer<void>> stopAnswers_;
  std::vector<Control::Answer<std::vector<Control::NetIfFirewallState>>> startAnswers_;
  bool importsClosed_ = false;
  bool listingsClosed_ = false;
  bool searchesClosed_ = false;
  bool discoveryClosed_ = false;
  Io::Function ended_;

  const std::shared_ptr<Remote::SharedSecurity> importSecurity_ = std::make_shared<Remote::SharedSecurity>();

  std::chrono::milliseconds retryDelay_;
  Io::Timer retry_;

  Server server_;
  Publisher publisher_;
  ExportRegistry registry_;
  ImportRegistry imports_;
  Remote::Listings listings_;
  Remote::Listings searches_;  // of many servers, with less patience for each
  Remote::Search search_;
  Discovery::Discovery discovery_;
  Reservations::Records& reservations_;
  Reservations::Desk desk_;
  Reservations::RemoteReservations remoteReservations_;
};

}  // namespace Nbdd
