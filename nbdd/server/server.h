#pragma once

#include <cstddef>
#include <cstdint>
#include <expected>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "control/failure.h"
#include "control/records.h"
#include "nbdd/exports/publication.h"
#include "nbdd/io/event_loop.h"
#include "nbdd/reservations/gate.h"
#include "nbdd/server/access.h"
#include "nbdd/server/conversation.h"

namespace Nbdd {

/// Where to listen. An empty list of addresses means every address of the host, IPv4 and IPv6.
struct ListenConfiguration {
  std::vector<std::string> addresses;  // numeric, "192.0.2.7", "::", "fe80::1%eth0"
  std::uint16_t port = 10809;          // 0 = any free one, the same for all addresses
};

/// The NBD server: listens, hands each connection to one of its worker threads, and serves the published
/// exports there.
///
/// All functions belong to the thread of the control loop, and all callbacks are called on it. Nothing here
/// waits: what takes time ends with a callback.
class Server final : public Reservations::Gate {
 public:
  struct Options {
    unsigned int workers = 0;  // threads with an event loop each; 0 = one per processor
    bool allowRing = true;     // use io_uring where the kernel allows it
    /// Speaks the private extension, as this server; needs Events::properties.
    std::optional<Nbd::Extension::Hello> extension = std::nullopt;
  };

  struct Events {
    /// The last client of an export has gone (it may have been withdrawn before or not).
    std::move_only_function<void(Control::ExportId)> lastClientLeft;
    /// A sync of the export's storage failed: its clients were told, nothing more is written.
    std::move_only_function<void(Control::ExportId, int error)> storageFailed;
    /// The server's properties, for clients that ask by the extension.
    std::move_only_function<std::vector<Nbd::Extension::Property>()> properties = nullptr;
    /// What clients ask about reservations by the extension; without it the server cannot be reserved.
    std::move_only_function<void(const Reservations::Client&, Nbd::Extension::Kind,
                                 const std::vector<std::byte>& body, Reservations::Tell)>
        askDesk = nullptr;
    std::move_only_function<void(std::uint64_t client)> leftDesk = nullptr;
  };

  /// Starts the worker threads. Throws std::system_error if the system refuses (start-up only).
  Server(Io::EventLoop& loop, Options options, Events events);
  /// Ends all sessions hard and joins the threads. Call `close` first, and await it, for a clean end.
  ~Server() override;
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  /// Listens on all the addresses, or on none: a port that is taken, an address that the host does not have
  /// or a privilege that is missing each give their own code.
  std::expected<void, Control::Failure> listen(const ListenConfiguration& configuration);
  bool listening() const;
  /// The port that is listened on; 0 when not listening.
  std::uint16_t port() const;
  /// What is listened on, "0.0.0.0" and "::" for every address; nothing when not listening.
  std::vector<Control::Endpoint> addresses() const;
  /// Where other hosts reach this server now: the host's addresses as far as they are listened on, loopback
  /// left out.
  std::vector<Control::NetIfFirewallState> endpoints() const;

  /// Stops listening, lets every session finish the requests that run, ends it, and then calls `done`.
  void close(Io::Function done);

  /// Who may come from now on, and how connections are secured; everybody, and in the clear, at first.
  /// Clients that are there stay.
  void setAccess(std::shared_ptr<const Access> access);
  Nbd::TlsMode tlsMode() const;

  /// From now on clients find this export. Its id and its name must not be published already.
  void publish(Publication publication);
  /// From now on no new client gets this export. Connected ones go on. Unknown ids are ignored.
  void withdraw(Control::ExportId id);
  /// Lets every session of the export finish the requests that run, ends it, and calls `done` when the last
  /// has ended (at once, but never inside this call, when there is none). Withdraw first.
  void endSessions(Control::ExportId id, Io::Function done);

  void clear(Io::Function cleared) override;
  void admitOnly(const Reservations::LeaseId& lease) override;
  void admitAll() override;
  void endHolder(const Reservations::LeaseId& lease) override;

  /// The clients that use the export now.
  std::vector<Control::ExportClientInfo> clients(Control::ExportId id) const;
  std::size_t clientCount(Control::ExportId id) const;
  /// The clients of all exports.
  std::size_t clientCount() const;
  /// All open connections, those in the handshake included.
  std::size_t connectionCount() const;
  /// "io_uring" or "threads": how storage is waited for.
  std::string_view storageEngine() const;
  /// How many worker threads there are, each with an event loop.
  std::size_t workerCount() const;

 private:
  struct State;
  std::shared_ptr<State> state_;  // shared with what the workers post to the control loop
};

}  // namespace Nbdd
