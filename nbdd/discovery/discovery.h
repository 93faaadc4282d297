#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "control/failure.h"
#include "control/interface.h"
#include "nbdd/discovery/found_servers.h"
#include "nbdd/discovery/messages.h"
#include "nbdd/discovery/responder_process.h"
#include "nbdd/io/event_loop.h"

namespace Nbdd::Discovery {

/// What the operator may set, and what the service knows.
struct Options {
  bool enabled = false;
  std::string hostName{};
  std::string label{};                    // empty: the host's name
  std::vector<std::string> interfaces{};  // empty: all that do multicast
  std::chrono::seconds timeToLive{120};
  std::string program{};  // that runs as the responder: nbdd itself
};

/// Finds other servers in the local network, and lets others find this one, by DNS-SD.
///
/// The responder runs while there is something to announce, or somebody has looked at the view within
/// Limits::discoveryInterest; otherwise this service does not take part in multicast DNS at all. Failures are
/// logged and tried again, and touch nothing else. Belongs to the thread of `loop`.
class Discovery {
 public:
  /// `uuid`: of this server, which is never among those found.
  Discovery(Io::EventLoop& loop, Options options, std::string uuid);
  Discovery(const Discovery&) = delete;
  Discovery& operator=(const Discovery&) = delete;
  ~Discovery();

  /// Announces the server that listens on these, until `withdraw`. Where it cannot be reached from other
  /// hosts, nothing is announced.
  void announce(const std::vector<Control::Endpoint>& listening);
  void withdraw();

  /// The servers that can be seen: at once while the view is alive, otherwise when everybody had the time to
  /// answer, and after Limits::discoveryTime at the latest.
  void discover(Control::Answer<std::vector<Control::RemoteServerDescriptor>> answer);

  /// Where the servers in view are reached; none while nobody has looked for them.
  std::vector<Control::Endpoint> endpoints() const;

  /// Says goodbye; calls `done` when that is done, never inside this call.
  void close(Io::Function done);

 private:
  void fulfil();
  void start();
  void takeReport(Report report);
  void responderEnded();
  void answerFromView(Control::Answer<std::vector<Control::RemoteServerDescriptor>> answer);
  void answerWaiting();
  void loseInterest();

  Io::EventLoop& loop_;
  const Options options_;
  const std::string uuid_;

  Wish wish_;
  std::unique_ptr<ResponderProcess> responder_;
  std::chrono::milliseconds restartPause_;
  Io::Timer restart_;

  FoundServers found_;
  bool searched_ = false;          // the view is alive
  Io::Clock::time_point asked_{};  // everybody, the last time
  std::vector<Control::Answer<std::vector<Control::RemoteServerDescriptor>>> waiting_;
  Io::Timer patience_;
  Io::Timer interest_;
  bool closing_ = false;
  Io::Function closed_;
};

}  // namespace Nbdd::Discovery
