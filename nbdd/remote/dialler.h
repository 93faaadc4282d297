#pragma once

#include <cstdint>
#include <expected>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "control/failure.h"
#include "nbd/client_handshake.h"
#include "nbd/extension.h"
#include "nbdd/io/event_loop.h"
#include "nbdd/io/signal.h"
#include "nbdd/io/stream.h"
#include "nbdd/io/task.h"
#include "nbdd/remote/address.h"
#include "nbdd/remote/security.h"

namespace Nbdd::Remote {

/// Where a remote NBD server is.
struct Place {
  std::string host;  ///< an IP address as text, or a name
  std::uint16_t port = 0;
};

/// A connection whose handshake is over.
struct Dialled {
  std::unique_ptr<Io::Stream> stream;
  Nbd::ClientHandshake::Agreement agreement;
  std::vector<Nbd::RemoteExport>
      exports;  ///< of the goals that list them; the connection is then of no more use
  std::optional<Nbd::Extension::Compression> compression;  ///< what the caller agreed on by a dialogue
  std::vector<std::byte> received;                         ///< what came behind the handshake already
};

using DialResult = std::expected<Dialled, Control::Failure>;

/// Makes one connection to a server: looks its name up, connects, and goes through the handshake, all within
/// a bounded time. One loop's thread; outlives its coroutine.
class Dialler {
 public:
  /// How long it may take, and how long each of several addresses may; tests are less patient.
  struct Patience {
    std::chrono::milliseconds whole;
    std::chrono::milliseconds address;
  };
  static Patience usualPatience();

  Dialler(Io::EventLoop& loop, Place place, Patience patience = usualPatience(), Security security = {});

  /// Once. The failure says what went wrong with whom, in words for the operator.
  Io::Task<DialResult> dial(Nbd::ClientHandshake::Wish wish);

  /// What binds proofs to the channel that the handshake goes over; nothing in the clear.
  std::optional<std::string> channelBinding() const {
    const std::vector<std::byte> bytes =
        stream_ == nullptr ? std::vector<std::byte>() : stream_->channelBinding();
    if (bytes.empty()) return std::nullopt;
    return std::string(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  }

  /// Ends it soon, wherever it is, with a failure.
  void cancel();

 private:
  enum class Verdict : std::uint8_t { goOn, timeUp, cancelled };

  Io::Task<Addresses> resolve();
  Io::Task<std::expected<Io::FileDescriptor, Control::Failure>> connect(std::vector<SocketAddress> addresses);
  Io::Task<int> connectTo(SocketAddress address, int socket);
  Io::Task<DialResult> negotiate(Dialled dialled, Nbd::ClientHandshake::Wish wish);
  Io::Task<std::expected<void, Control::Failure>> secure();
  Io::Task<bool> sendAll(std::vector<std::byte>& output);
  Io::Task<bool> receiveMore(std::vector<std::byte>& received);

  void end(Verdict verdict);
  std::unexpected<Control::Failure> failure(Control::FailureCode code, std::string_view what) const;
  std::unexpected<Control::Failure> interrupted(std::string_view what) const;
  std::unexpected<Control::Failure> refused(const Nbd::ClientHandshake::Failure& why) const;
  std::unexpected<Control::Failure> closed() const;

  Io::EventLoop& loop_;
  const Place place_;
  const Patience patience_;
  const Security security_;
  Io::Signal wake_;
  Io::Timer deadline_;
  Io::Timer addressDeadline_;
  bool addressTimeUp_ = false;
  Verdict verdict_ = Verdict::goOn;
  Io::Stream* stream_ = nullptr;  // during the handshake
  bool unheard_ = false;          // TLS is made, and the server has said nothing since
};

}  // namespace Nbdd::Remote
