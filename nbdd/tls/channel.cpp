#include "nbdd/tls/channel.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <utility>

// What passes through a channel once it is there; channel_handshake.cpp makes it.
//
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

}  // namespace

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
