#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <thread>

#include "nbd/extension_inquiry.h"
#include "nbdd/io/event_loop.h"
#include "nbdd/io/scope.h"
#include "nbdd/remote/dialler.h"
#include "nbdd/reservations/dialogues.h"

namespace Nbdd::Reservations {

/// One short conversation with a remote server about its reservation, on a thread of its own: hashing a
/// password keeps nobody waiting there.
class Errand {
 public:
  struct Task {
    Control::Endpoint server;             ///< the port is not 0
    std::optional<std::string> password;  ///< prepared: reserve the server; else prove the lease of it
    Purpose purpose = Purpose::hold;      ///< of a proof
  };

  struct Report {
    /// The server could not be talked to.
    std::optional<Control::Failure> failure;
    /// What became of reserving it.
    Control::Result<std::chrono::seconds> reserved;
    /// A lease that it may have granted, or not: the connection was lost too early.
    std::optional<HeldLease> undecided;
    /// What became of a proof, and of which lease.
    ProofDialogue::Outcome proof = ProofDialogue::Outcome::none;
    std::optional<HeldLease> held;
    std::chrono::seconds time{};
  };
  using Told = std::move_only_function<void(Report)>;

  /// Sets out. `told` is called once on the loop of `control`, unless this is destroyed before; it may
  /// destroy this. `records` outlives it; `security` is how the server is reached, and what proofs are bound
  /// to where it is TLS. Throws std::system_error if the system has no thread for it.
  Errand(Io::EventLoop& control, Records& records, Nbd::Extension::Hello self, Remote::Security security,
         Task task, Told told);
  /// Gives it up, and waits for the thread, which does not take longer than a hash.
  ~Errand();
  Errand(const Errand&) = delete;
  Errand& operator=(const Errand&) = delete;

 private:
  struct Ear {
    Told told;
    bool listening = true;
  };

  Io::Task<void> run();
  Report report(const Remote::DialResult& dialled);

  Io::EventLoop& control_;
  const Task task_;
  const std::shared_ptr<Ear> ear_;  // the control loop's thread

  // Its own thread:
  Io::EventLoop loop_;
  Nbd::Extension::Inquiry inquiry_;
  std::optional<ReservingDialogue> reserving_;
  std::optional<ProofDialogue> proving_;
  Remote::Dialler dialler_;
  Io::Scope scope_;

  std::thread thread_;
};

}  // namespace Nbdd::Reservations
