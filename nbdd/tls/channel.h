#pragma once

#include <gnutls/gnutls.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "nbdd/io/layer.h"
#include "nbdd/io/stream.h"
#include "nbdd/tls/credentials.h"

namespace Nbdd::Tls {

/// Who the other side has proved to be, and how the connection is secured.
struct Peer {
  std::string version;             // "TLS1.3"
  std::string cipher;              // "AES-128-GCM"
  std::vector<std::string> names;  // in its certificate, or that of its key; empty: it proved nothing

  /// For people: "TLS1.3, AES-128-GCM, client alice". Escaped.
  std::string description() const;
};

/// One TLS session over a stream's socket.
///
/// GnuTLS never sees the socket: it takes from memory and gives to memory. So the handshake, which costs a
/// thousand times what anything else does, may run on another thread than the stream's, and afterwards many
/// records leave or arrive with one system call. What passes through is put together in memory that all
/// channels of a thread share in turn; an idle one holds none.
class Channel final : public Io::Layer {
 public:
  /// `stream` outlives this; `host` is whom a client wants to reach.
  Channel(Io::Stream& stream, std::shared_ptr<const Credentials> credentials, std::string host = {});
  ~Channel() override;

  // The handshake:

  enum class Step : std::uint8_t { done, needsInput, failed };
  /// Goes on with it as far as the input goes. Any thread, while nobody else uses the channel.
  Step shakeHands();
  /// What the other side has sent meanwhile.
  void give(std::span<const std::byte> bytes);
  /// Whether nothing passes any more.
  bool broken() const { return error_ != 0; }
  /// After `done`.
  Peer peer() const;
  /// After `failed`: why, for people; escaped.
  const std::string& failure() const { return failure_; }

  // Afterwards, as a layer:

  ssize_t receive(std::span<std::byte> buffer) override;
  ssize_t send(std::span<const iovec> pieces, bool more) override;
  ssize_t sendFile(int file, std::uint64_t offset, std::size_t length) override;
  bool holdsInput() const override;
  void flush() override;
  bool flushed() const override { return sent_ == output_.size() || error_ != 0; }
  void endSending() override;
  std::vector<std::byte> channelBinding() const override;

  /// GnuTLS asks a server for the key of a name.
  static int findKey(gnutls_session_t session, const gnutls_datum_t* name, gnutls_datum_t* key);

 private:
  class Turn;

  static ssize_t pull(gnutls_transport_ptr_t self, void* buffer, std::size_t size);
  static int pullWaits(gnutls_transport_ptr_t self, unsigned int milliseconds);
  static ssize_t push(gnutls_transport_ptr_t self, const void* buffer, std::size_t size);
  static int verify(gnutls_session_t session);

  void check(int result) const;
  bool isAdmitted();
  std::vector<std::string> peerNames() const;
  void failHandshake(int result);
  bool refill(std::size_t wanted);
  void fail(int result);
  bool encrypt(std::span<const std::byte> bytes);
  bool sendOutput();
  ssize_t outcome(std::size_t done) const;

  Io::Stream& stream_;
  const std::shared_ptr<const Credentials> credentials_;
  const std::string host_;
  Owner<gnutls_session_t, &gnutls_deinit> session_;
  std::string failure_;
  gnutls_alert_description_t alert_ = GNUTLS_A_CLOSE_NOTIFY;  // of a refusal of ours
  bool refused_ = false;                                      // by us, in the handshake
  int error_ = 0;                                             // an errno: nothing passes any more
  bool ended_ = false;  // the other side has said that nothing more comes
  bool socketEnded_ = false;
  bool ending_ = false;  // we have said so

  std::span<const std::byte> source_;  // what GnuTLS takes from
  std::vector<std::byte> input_;       // received, and not taken yet
  std::vector<std::byte> output_;      // what GnuTLS has given; [0, sent_) has been sent
  std::size_t sent_ = 0;
  std::vector<std::byte> held_;  // accepted, and kept back for what follows at once
};

}  // namespace Nbdd::Tls
