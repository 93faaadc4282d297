#include "nbdd/tls/channel.h"

#include <fmt/core.h>
#include <fmt/ranges.h>
#include <gnutls/crypto.h>
#include <gnutls/x509.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

#include "nbdd/log/log.h"

// What costs time in TLS, besides the cipher, is handling: a record holds at most 16 KiB, so a large read
// makes dozens of them, and GnuTLS by itself would ask for each with two system calls and send each with one.
// Here they are collected: one system call takes or gives what several records hold. And a record is filled
// before it is made: replies, their headers and what is read from files are put together behind one another,
// because a record of 20 bytes costs almost as much as one of 2,000.

namespace Nbdd::Tls {

namespace {

// Plaintext in a record, by the protocol.
constexpr std::size_t recordSize = std::size_t{16} * 1024;

// What a record takes more than its plaintext.
constexpr std::size_t recordOverhead = 256;

// Received at once: sixteen records.
constexpr std::size_t inputSize = 16 * (recordSize + recordOverhead);

// Read from a file at once, and sent at once: as much as stays in the processor's nearer caches between the
// reading, the cipher and the socket, and enough for the system calls not to matter.
constexpr std::size_t fileChunk = 4 * recordSize;
constexpr std::size_t sendSize = 4 * recordSize;
constexpr std::size_t outputSize = sendSize + 2 * (recordSize + recordOverhead);

// Names of one certificate that are looked at.
constexpr unsigned int mostNames = 64;

/// What all channels of a thread use in turn.
struct Scratch {
  std::unique_ptr<std::byte[]> input = std::make_unique<std::byte[]>(inputSize);
  std::unique_ptr<std::byte[]> plain = std::make_unique<std::byte[]>(recordSize + fileChunk);
  std::vector<std::byte> output;
};

Scratch& scratch() {
  thread_local Scratch memory;
  return memory;
}

Channel& channelOf(gnutls_session_t session) {
  return *static_cast<Channel*>(::gnutls_session_get_ptr(session));
}

struct Reason {
  unsigned int bit;
  std::string_view words;
};

// The first that holds is told.
constexpr Reason reasons[] = {
    {GNUTLS_CERT_EXPIRED, "it has expired"},
    {GNUTLS_CERT_NOT_ACTIVATED, "it is not valid yet"},
    {GNUTLS_CERT_REVOKED, "it was revoked"},
    {GNUTLS_CERT_UNEXPECTED_OWNER, "it is made out to another name"},
    {GNUTLS_CERT_PURPOSE_MISMATCH, "it is for another purpose"},
    {GNUTLS_CERT_INSECURE_ALGORITHM, "its signature is of a kind that can be forged"},
    {GNUTLS_CERT_SIGNER_NOT_FOUND, "no authority that is trusted here has signed it"},
    {GNUTLS_CERT_SIGNER_NOT_CA, "who signed it is no authority"},
    {GNUTLS_CERT_SIGNATURE_FAILURE, "its signature is wrong"},
};

std::string_view whyUntrusted(unsigned int status) {
  const auto* const reason =
      std::ranges::find_if(reasons, [status](const Reason& each) { return (status & each.bit) != 0; });
  return reason == std::end(reasons) ? "it cannot be verified" : reason->words;
}

bool isNumericAddress(const std::string& host) {
  return host.find(':') != std::string::npos || host.find_first_not_of("0123456789.") == std::string::npos;
}

}  // namespace

std::string Peer::description() const {
  std::string text = fmt::format("{}, {}", version, cipher);
  if (!names.empty()) text += fmt::format(", client {}", escaped(names.front()));
  return text;
}

/// For the length of one call the channel has the thread's memory for output, unless it holds some of its
/// own.
class Channel::Turn {
 public:
  explicit Turn(Channel& channel) : channel_(channel) {
    if (channel.output_.capacity() == 0) channel.output_.swap(scratch().output);
    channel.output_.reserve(outputSize);
  }
  Turn(const Turn&) = delete;
  Turn& operator=(const Turn&) = delete;
  ~Turn() {
    if (!channel_.output_.empty() && channel_.error_ == 0) return;  // it waits for the socket, and keeps it
    channel_.output_.clear();
    channel_.sent_ = 0;
    channel_.output_.swap(scratch().output);
    channel_.output_ = {};
  }

 private:
  Channel& channel_;
};

Channel::Channel(Io::Stream& stream, std::shared_ptr<const Credentials> credentials, std::string host)
    : stream_(stream), credentials_(std::move(credentials)), host_(std::move(host)) {
  const bool server = credentials_->isServer();
  gnutls_session_t made = nullptr;
  check(::gnutls_init(&made, (server ? GNUTLS_SERVER : GNUTLS_CLIENT) | GNUTLS_NONBLOCK | GNUTLS_NO_TICKETS));
  session_.reset(made);
  check(::gnutls_priority_set(made, credentials_->priorities()));
  if (credentials_->certificates() != nullptr) {
    check(::gnutls_credentials_set(made, GNUTLS_CRD_CERTIFICATE, credentials_->certificates()));
  }
  if (credentials_->serverKeys() != nullptr) {
    check(::gnutls_credentials_set(made, GNUTLS_CRD_PSK, credentials_->serverKeys()));
  }
  if (credentials_->clientKey() != nullptr) {
    check(::gnutls_credentials_set(made, GNUTLS_CRD_PSK, credentials_->clientKey()));
  }
  if (server) {
    ::gnutls_certificate_server_set_request(
        made, credentials_->demandsProof() ? GNUTLS_CERT_REQUIRE : GNUTLS_CERT_IGNORE);
  } else if (!host_.empty() && !isNumericAddress(host_)) {
    // A name that TLS cannot carry is not told; whether the certificate has it is looked at all the same.
    static_cast<void>(::gnutls_server_name_set(made, GNUTLS_NAME_DNS, host_.data(), host_.size()));
  }
  ::gnutls_session_set_ptr(made, this);
  ::gnutls_session_set_verify_function(made, &Channel::verify);
  ::gnutls_handshake_set_timeout(made, 0);  // time is the caller's business
  ::gnutls_transport_set_ptr(made, this);
  ::gnutls_transport_set_pull_function(made, &Channel::pull);
  ::gnutls_transport_set_pull_timeout_function(made, &Channel::pullWaits);
  ::gnutls_transport_set_push_function(made, &Channel::push);
}

Channel::~Channel() = default;

/// For calls that fail for want of memory alone.
void Channel::check(int result) const {
  if (result < 0) throw std::bad_alloc();
}

// --- What GnuTLS asks for

ssize_t Channel::pull(gnutls_transport_ptr_t self, void* buffer, std::size_t size) {
  auto& channel = *static_cast<Channel*>(self);
  if (channel.source_.empty()) {
    if (channel.socketEnded_) return 0;
    ::gnutls_transport_set_errno(channel.session_.get(), EAGAIN);
    return -1;
  }
  const std::size_t part = std::min(size, channel.source_.size());
  std::memcpy(buffer, channel.source_.data(), part);
  channel.source_ = channel.source_.subspan(part);
  return static_cast<ssize_t>(part);
}

int Channel::pullWaits(gnutls_transport_ptr_t self, unsigned int /*milliseconds*/) {
  return static_cast<Channel*>(self)->source_.empty() ? 0 : 1;
}

ssize_t Channel::push(gnutls_transport_ptr_t self, const void* buffer, std::size_t size) {
  auto& channel = *static_cast<Channel*>(self);
  const auto* const bytes = static_cast<const std::byte*>(buffer);
  channel.output_.insert(channel.output_.end(), bytes, bytes + size);
  return static_cast<ssize_t>(size);
}

int Channel::findKey(gnutls_session_t session, const gnutls_datum_t* name, gnutls_datum_t* key) {
  const Keys& keys = *channelOf(session).credentials_->keys();
  const auto found = keys.find(std::string_view(reinterpret_cast<const char*>(name->data), name->size));
  // Who has no key gets one that nobody knows: whether a name is known here is not told.
  const std::size_t size = found == keys.end() ? std::size_t{32} : found->second.size();
  key->data = static_cast<unsigned char*>(::gnutls_malloc(size));
  if (key->data == nullptr) return -1;
  key->size = static_cast<unsigned int>(size);
  if (found == keys.end()) return ::gnutls_rnd(GNUTLS_RND_KEY, key->data, size) < 0 ? -1 : 0;
  std::memcpy(key->data, found->second.data(), size);
  return 0;
}

int Channel::verify(gnutls_session_t session) {
  Channel& channel = channelOf(session);
  const bool server = channel.credentials_->isServer();
  std::array<gnutls_typed_vdata_st, 2> wanted{};
  wanted[0].type = GNUTLS_DT_KEY_PURPOSE_OID;
  wanted[0].data = reinterpret_cast<unsigned char*>(
      const_cast<char*>(server ? GNUTLS_KP_TLS_WWW_CLIENT : GNUTLS_KP_TLS_WWW_SERVER));
  wanted[1].type = GNUTLS_DT_DNS_HOSTNAME;
  wanted[1].data = reinterpret_cast<unsigned char*>(const_cast<char*>(channel.host_.c_str()));
  const bool byName = !server && channel.credentials_->verifiesName();
  unsigned int status = 0;
  const int result = ::gnutls_certificate_verify_peers(session, wanted.data(), byName ? 2 : 1, &status);
  if (result == 0 && status == 0) return 0;
  channel.refused_ = true;
  channel.alert_ =
      (status & GNUTLS_CERT_EXPIRED) != 0 ? GNUTLS_A_CERTIFICATE_EXPIRED : GNUTLS_A_BAD_CERTIFICATE;
  channel.failure_ =
      fmt::format("its certificate is not accepted: {}",
                  result < 0 ? std::string_view(::gnutls_strerror(result)) : whyUntrusted(status));
  return GNUTLS_E_CERTIFICATE_ERROR;
}

// --- The handshake

void Channel::give(std::span<const std::byte> bytes) {
  input_.erase(input_.begin(), input_.end() - static_cast<std::ptrdiff_t>(source_.size()));
  input_.insert(input_.end(), bytes.begin(), bytes.end());
  source_ = input_;
}

Channel::Step Channel::shakeHands() {
  for (;;) {
    const int result = ::gnutls_handshake(session_.get());
    if (result == 0) {
      // What came behind the handshake is for receive().
      input_ = std::vector<std::byte>(source_.begin(), source_.end());
      source_ = {};
      if (isAdmitted()) return Step::done;
      failHandshake(GNUTLS_E_CERTIFICATE_ERROR);
      return Step::failed;
    }
    if (result == GNUTLS_E_AGAIN && source_.empty()) return Step::needsInput;
    if (::gnutls_error_is_fatal(result) != 0) {
      failHandshake(result);
      return Step::failed;
    }
  }
}

/// What GnuTLS does not look at by itself: that the other side is known by what it had to be known by, and is
/// one of those who may come.
bool Channel::isAdmitted() {
  if (credentials_->clientKey() != nullptr && ::gnutls_auth_get_type(session_.get()) != GNUTLS_CRD_PSK) {
    failure_ = "it did not prove that it knows the key";
  } else if (credentials_->isServer() && credentials_->demandsProof()) {
    const std::vector<std::string> names = peerNames();
    unsigned int count = 0;
    const bool proved = ::gnutls_auth_get_type(session_.get()) == GNUTLS_CRD_PSK ||
                        (::gnutls_certificate_get_peers(session_.get(), &count) != nullptr && count > 0);
    if (!proved) {
      failure_ = "it did not prove who it is";
    } else if (!credentials_->admits(names)) {
      failure_ = fmt::format("none of its names is one of the clients that may come: {}",
                             escaped(fmt::format("{}", fmt::join(names, ", "))));
    }
  }
  if (failure_.empty()) return true;
  refused_ = true;
  alert_ = GNUTLS_A_ACCESS_DENIED;
  return false;
}

void Channel::failHandshake(int result) {
  if (refused_) {
    static_cast<void>(::gnutls_alert_send(session_.get(), GNUTLS_AL_FATAL, alert_));
    return;
  }
  if (result == GNUTLS_E_FATAL_ALERT_RECEIVED) {
    const char* const name = ::gnutls_alert_get_name(::gnutls_alert_get(session_.get()));
    failure_ = fmt::format("the other side refused: {}", name == nullptr ? "it does not say why" : name);
    return;
  }
  static_cast<void>(::gnutls_alert_send_appropriate(session_.get(), result));
  failure_ = result == GNUTLS_E_CERTIFICATE_REQUIRED || result == GNUTLS_E_NO_CERTIFICATE_FOUND
                 ? "it showed no certificate"
                 : ::gnutls_strerror(result);
}

std::vector<std::string> Channel::peerNames() const {
  std::vector<std::string> names;
  if (::gnutls_auth_get_type(session_.get()) == GNUTLS_CRD_PSK) {
    if (const char* const name = ::gnutls_psk_server_get_username(session_.get())) names.emplace_back(name);
    return names;
  }
  unsigned int count = 0;
  const gnutls_datum_t* const chain = ::gnutls_certificate_get_peers(session_.get(), &count);
  if (chain == nullptr || count == 0) return names;
  gnutls_x509_crt_t handle = nullptr;
  if (::gnutls_x509_crt_init(&handle) < 0) return names;
  const Owner<gnutls_x509_crt_t, &gnutls_x509_crt_deinit> certificate(handle);
  if (::gnutls_x509_crt_import(handle, chain, GNUTLS_X509_FMT_DER) < 0) return names;
  std::array<char, 512> text{};
  std::size_t size = text.size();
  if (::gnutls_x509_crt_get_dn_by_oid(handle, GNUTLS_OID_X520_COMMON_NAME, 0, 0, text.data(), &size) == 0) {
    names.emplace_back(text.data(), size);
  }
  for (unsigned int index = 0; index < mostNames; ++index) {
    size = text.size();
    const int type = ::gnutls_x509_crt_get_subject_alt_name(handle, index, text.data(), &size, nullptr);
    if (type == GNUTLS_E_REQUESTED_DATA_NOT_AVAILABLE) break;
    if (type == GNUTLS_SAN_DNSNAME || type == GNUTLS_SAN_RFC822NAME || type == GNUTLS_SAN_URI) {
      names.emplace_back(text.data(), size);
    }
  }
  return names;
}

Peer Channel::peer() const {
  const auto orNothing = [](const char* text) { return std::string(text == nullptr ? "" : text); };
  return {.version = orNothing(::gnutls_protocol_get_name(::gnutls_protocol_get_version(session_.get()))),
          .cipher = orNothing(::gnutls_cipher_get_name(::gnutls_cipher_get(session_.get()))),
          .names = credentials_->isServer() ? peerNames() : std::vector<std::string>()};
}

std::vector<std::byte> Channel::channelBinding() const {
  // Without the extended master secret two connections of TLS 1.2 can be made to have the same bytes.
  const bool unique = ::gnutls_protocol_get_version(session_.get()) >= GNUTLS_TLS1_3 ||
                      ::gnutls_session_ext_master_secret_status(session_.get()) != 0;
  gnutls_datum_t bytes{};
  if (!unique || ::gnutls_session_channel_binding(session_.get(), GNUTLS_CB_TLS_EXPORTER, &bytes) < 0)
    return {};
  const auto* const begin = reinterpret_cast<const std::byte*>(bytes.data);
  std::vector<std::byte> copy(begin, begin + bytes.size);
  ::gnutls_free(bytes.data);
  return copy;
}

// --- Receiving

bool Channel::holdsInput() const {
  return !input_.empty() || ended_ || error_ != 0 || ::gnutls_record_check_pending(session_.get()) > 0;
}

/// Takes from the socket what `wanted` bytes may be made of. False: nothing is there.
bool Channel::refill(std::size_t wanted) {
  if (socketEnded_) return false;
  const std::span<std::byte> memory(scratch().input.get(), std::min(inputSize, wanted + recordSize));
  const ssize_t count = stream_.receiveFromSocket(memory);
  if (count < 0) {
    if (count != -EAGAIN) error_ = static_cast<int>(-count);
    return false;
  }
  socketEnded_ = count == 0;
  source_ = memory.first(static_cast<std::size_t>(count));
  return true;
}

ssize_t Channel::receive(std::span<std::byte> buffer) {
  const Turn turn(*this);
  bool refilled = false;
  std::size_t done = 0;
  source_ = input_;
  while (done < buffer.size() && error_ == 0 && !ended_) {
    const ssize_t count = ::gnutls_record_recv(session_.get(), buffer.data() + done, buffer.size() - done);
    if (count > 0) {
      done += static_cast<std::size_t>(count);
    } else if (count == 0) {
      ended_ = true;
    } else if (count != GNUTLS_E_AGAIN && count != GNUTLS_E_INTERRUPTED) {
      fail(static_cast<int>(count));
    } else if (source_.empty()) {
      // After a short read the rest is still on its way.
      if ((refilled && stream_.drained()) || !refill(buffer.size() - done)) break;
      refilled = true;
    }
  }
  if (refilled || source_.empty()) {
    input_ = std::vector<std::byte>(source_.begin(), source_.end());
  } else {
    input_.erase(input_.begin(), input_.end() - static_cast<std::ptrdiff_t>(source_.size()));
  }
  source_ = {};
  if (!output_.empty()) sendOutput();  // an answer of TLS's own
  if (done == 0 && ended_) return 0;
  return outcome(done);
}

/// Nothing passes any more. Renegotiation is none of the things that may happen.
void Channel::fail(int result) {
  static_cast<void>(::gnutls_alert_send_appropriate(session_.get(), result));
  sendOutput();  // that this fails as well is no news
  error_ = result == GNUTLS_E_PREMATURE_TERMINATION ? ECONNRESET : EPROTO;
}

ssize_t Channel::outcome(std::size_t done) const {
  if (done > 0) return static_cast<ssize_t>(done);
  return error_ != 0 ? -error_ : -EAGAIN;
}

// --- Sending

/// Makes records of it. False: it cannot be sent any more.
bool Channel::encrypt(std::span<const std::byte> bytes) {
  while (!bytes.empty()) {
    const ssize_t count =
        ::gnutls_record_send(session_.get(), bytes.data(), std::min(bytes.size(), recordSize));
    if (count <= 0) {
      fail(static_cast<int>(count));
      return false;
    }
    bytes = bytes.subspan(static_cast<std::size_t>(count));
  }
  return true;
}

/// Whether all of the output is sent.
bool Channel::sendOutput() {
  while (sent_ < output_.size()) {
    const ssize_t count = stream_.sendToSocket(std::span(output_).subspan(sent_));
    if (count < 0) {
      if (count != -EAGAIN && error_ == 0) error_ = static_cast<int>(-count);
      return false;
    }
    sent_ += static_cast<std::size_t>(count);
  }
  output_.clear();
  sent_ = 0;
  return true;
}

ssize_t Channel::send(std::span<const iovec> pieces, bool more) {
  const Turn turn(*this);
  if (error_ != 0 || !sendOutput()) return outcome(0);
  const std::span<std::byte> record(scratch().plain.get(), recordSize);
  std::size_t filled = held_.size();
  std::ranges::copy(held_, record.begin());
  held_.clear();
  std::size_t done = 0;
  bool open = true;  // the socket takes more
  for (const iovec& piece : pieces) {
    std::span<const std::byte> bytes(static_cast<const std::byte*>(piece.iov_base), piece.iov_len);
    while (open && !bytes.empty()) {
      const bool whole = filled == 0 && bytes.size() >= recordSize;
      const std::size_t part = std::min(bytes.size(), recordSize - filled);
      if (!whole) {
        std::ranges::copy(bytes.first(part), record.subspan(filled).begin());
        filled += part;
      }
      if (whole || filled == recordSize) {
        if (!encrypt(whole ? bytes.first(part) : std::span<const std::byte>(record))) return outcome(0);
        filled = 0;
      }
      bytes = bytes.subspan(part);
      done += part;
      open = output_.size() < sendSize || sendOutput();
    }
  }
  if (more && open) {
    held_.assign(record.begin(), record.begin() + static_cast<std::ptrdiff_t>(filled));
  } else if (!encrypt(record.first(filled))) {
    return outcome(0);
  }
  sendOutput();  // also what more follows on: who is told of unsent bytes waits for the socket
  return outcome(done);
}

ssize_t Channel::sendFile(int file, std::uint64_t offset, std::size_t length) {
  const Turn turn(*this);
  if (error_ != 0 || !sendOutput()) return outcome(0);
  const std::span<std::byte> memory(scratch().plain.get(), recordSize + fileChunk);
  std::size_t filled = held_.size();
  std::ranges::copy(held_, memory.begin());
  held_.clear();
  std::size_t done = 0;
  bool open = true;
  while (open && done < length) {
    const std::size_t wanted = std::min(memory.size() - filled, length - done);
    const ssize_t count = ::pread(file, memory.data() + filled, wanted, static_cast<off_t>(offset + done));
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) {
      // These bytes were promised, and what stands before them was accepted: the connection cannot go on.
      error_ = count < 0 ? errno : EIO;
      return -error_;
    }
    done += static_cast<std::size_t>(count);
    filled += static_cast<std::size_t>(count);
    const std::size_t whole = done == length ? filled : filled / recordSize * recordSize;
    for (std::size_t at = 0; at < whole; at += recordSize) {
      if (!encrypt(memory.subspan(at, std::min(recordSize, whole - at)))) return outcome(0);
      if (output_.size() >= sendSize) open = sendOutput() && open;
    }
    std::memmove(memory.data(), memory.data() + whole, filled - whole);
    filled -= whole;
  }
  if (!encrypt(memory.first(filled))) return outcome(0);
  sendOutput();
  return outcome(done);
}

void Channel::flush() {
  if (output_.empty()) return;
  const Turn turn(*this);
  if (sendOutput() && ending_) ::shutdown(stream_.descriptor(), SHUT_WR);
}

void Channel::endSending() {
  if (error_ != 0 || std::exchange(ending_, true)) return;
  const Turn turn(*this);
  static_cast<void>(::gnutls_bye(session_.get(), GNUTLS_SHUT_WR));
  sendOutput();
}

}  // namespace Nbdd::Tls
