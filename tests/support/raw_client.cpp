#include "tests/support/raw_client.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>
#include <utility>

namespace Wire {

namespace {

using Clock = std::chrono::steady_clock;

void check(bool good, const char* what) {
  if (!good) throw std::system_error(errno, std::generic_category(), what);
}

// Waits until `events` are there or the time is over; false in the latter case.
bool waitFor(int socket, short events, Clock::time_point deadline) {
  for (;;) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    pollfd entry{.fd = socket, .events = events, .revents = 0};
    const int count = ::poll(&entry, 1, static_cast<int>(std::max<std::int64_t>(left.count(), 0)));
    if (count > 0) return true;
    if (count == 0) return false;
    check(errno == EINTR, "poll");
  }
}

}  // namespace

RawClient::RawClient(std::uint16_t port, std::optional<int> receiveBuffer)
    : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  check(socket_ >= 0, "socket");
  if (receiveBuffer) {
    check(::setsockopt(socket_, SOL_SOCKET, SO_RCVBUF, &*receiveBuffer, sizeof *receiveBuffer) == 0,
          "SO_RCVBUF");
  }
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  check(::connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0, "connect");
  const int on = 1;
  check(::setsockopt(socket_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) == 0, "TCP_NODELAY");
}

RawClient::~RawClient() { close(); }

RawClient::RawClient(RawClient&& other) noexcept
    : socket_(std::exchange(other.socket_, -1)), headers_(other.headers_), nextCookie_(other.nextCookie_) {}

void RawClient::send(Nbd::Bytes bytes, std::chrono::milliseconds limit) {
  const Clock::time_point deadline = Clock::now() + limit;
  while (!bytes.empty()) {
    const ssize_t count = ::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (count >= 0) {
      bytes = bytes.subspan(static_cast<std::size_t>(count));
    } else if (errno == EPIPE || errno == ECONNRESET) {
      throw Disappointment("the server closed while it was spoken to");
    } else {
      check(errno == EAGAIN || errno == EINTR, "send");
      if (!waitFor(socket_, POLLOUT, deadline)) throw Disappointment("the server does not listen");
    }
  }
}

std::size_t RawClient::sendWithoutWaiting(Nbd::Bytes bytes) {
  const ssize_t count = ::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  return count > 0 ? static_cast<std::size_t>(count) : 0;
}

Buffer RawClient::receive(std::size_t length, std::chrono::milliseconds limit) {
  const Clock::time_point deadline = Clock::now() + limit;
  Buffer bytes(length);
  for (std::size_t filled = 0; filled < length;) {
    const ssize_t count = ::recv(socket_, bytes.data() + filled, length - filled, MSG_DONTWAIT);
    if (count > 0) {
      filled += static_cast<std::size_t>(count);
    } else if (count == 0 || errno == ECONNRESET) {
      throw Disappointment("the server closed where it should have answered");
    } else {
      check(errno == EAGAIN || errno == EINTR, "recv");
      if (!waitFor(socket_, POLLIN, deadline)) throw Disappointment("the server does not answer");
    }
  }
  return bytes;
}

Buffer RawClient::receiveToEnd(std::chrono::milliseconds limit) {
  const Clock::time_point deadline = Clock::now() + limit;
  Buffer bytes;
  std::array<std::byte, 65'536> piece{};
  for (;;) {
    const ssize_t count = ::recv(socket_, piece.data(), piece.size(), MSG_DONTWAIT);
    if (count > 0) {
      bytes.insert(bytes.end(), piece.begin(), piece.begin() + count);
    } else if (count == 0 || errno == ECONNRESET) {
      return bytes;
    } else {
      check(errno == EAGAIN || errno == EINTR, "recv");
      if (!waitFor(socket_, POLLIN, deadline)) throw Disappointment("the server does not close");
    }
  }
}

bool RawClient::isClosedByServer(std::chrono::milliseconds limit) {
  try {
    receiveToEnd(limit);
    return true;
  } catch (const Disappointment&) {
    return false;
  }
}

void RawClient::endSending() { check(::shutdown(socket_, SHUT_WR) == 0, "shutdown"); }

void RawClient::close() {
  if (socket_ >= 0) ::close(std::exchange(socket_, -1));
}

void RawClient::reset() {
  const linger now{.l_onoff = 1, .l_linger = 0};
  check(::setsockopt(socket_, SOL_SOCKET, SO_LINGER, &now, sizeof now) == 0, "SO_LINGER");
  close();
}

std::uint16_t RawClient::receiveGreeting() {
  const Buffer greeting = receive(Nbd::greetingSize);
  Nbd::Reader reader(greeting);
  if (reader.number<std::uint64_t>() != Nbd::greetingMagic ||
      reader.number<std::uint64_t>() != Nbd::optionMagic) {
    throw Disappointment("the greeting is malformed");
  }
  return *reader.number<std::uint16_t>();
}

OptionReply RawClient::receiveOptionReply() {
  Buffer bytes = receive(Nbd::optionReplyHeaderSize);
  const auto length = Nbd::loadBig<std::uint32_t>(std::span<const std::byte>(bytes).subspan<16, 4>());
  if (length > 1024 * 1024) throw Disappointment("the reply to an option is too long");
  const Buffer data = receive(length);
  bytes.insert(bytes.end(), data.begin(), data.end());
  const auto replies = parseReplies(bytes);
  if (!replies) throw Disappointment("the reply to an option is malformed");
  return replies->front();
}

Nbd::ReplyType RawClient::ask(Nbd::Option code, const Buffer& data) {
  send(option(code, data));
  for (;;) {
    const OptionReply reply = receiveOptionReply();
    if (reply.option != code) throw Disappointment("the reply is to another option");
    const bool isError = (static_cast<std::uint32_t>(reply.type) & Nbd::replyErrorBit) != 0;
    if (isError || reply.type == Nbd::ReplyType::ack) return reply.type;
  }
}

void RawClient::enter(std::string_view exportName, Session session) {
  const auto must = [&](Nbd::Option code, const Buffer& data) {
    if (ask(code, data) != Nbd::ReplyType::ack) throw Disappointment("the server refused an option");
  };
  receiveGreeting();
  send(clientFlags());
  if (session.structuredReplies) must(Nbd::Option::structuredReply, {});
  if (session.extendedHeaders) must(Nbd::Option::extendedHeaders, {});
  if (session.allocationContext)
    must(Nbd::Option::setMetaContext, contextData(exportName, {"base:allocation"}));
  must(Nbd::Option::go, infoData(exportName));
  headers_ = session.extendedHeaders     ? Nbd::HeaderStyle::extended
             : session.structuredReplies ? Nbd::HeaderStyle::structured
                                         : Nbd::HeaderStyle::simple;
}

void RawClient::request(const Nbd::Request& request, Nbd::Bytes payload) {
  Buffer bytes(Nbd::requestSizeOf(headers_));
  if (headers_ == Nbd::HeaderStyle::extended) {
    Nbd::encodeExtendedRequest(std::span(bytes).first<Nbd::extendedRequestSize>(), request);
  } else {
    Nbd::encodeRequest(std::span(bytes).first<Nbd::requestSize>(), request);
  }
  bytes.insert(bytes.end(), payload.begin(), payload.end());
  send(bytes);
}

Nbd::SimpleReply RawClient::receiveSimpleReply() {
  const Buffer bytes = receive(Nbd::simpleReplySize);
  const auto reply = Nbd::decodeSimpleReply(std::span(bytes).first<Nbd::simpleReplySize>());
  if (!reply) throw Disappointment("the reply is malformed");
  return *reply;
}

RawClient::Chunk RawClient::receiveChunk() {
  const bool isExtended = headers_ == Nbd::HeaderStyle::extended;
  const Buffer bytes = receive(isExtended ? Nbd::extendedChunkHeaderSize : Nbd::chunkHeaderSize);
  const auto header =
      isExtended ? Nbd::decodeExtendedChunkHeader(std::span(bytes).first<Nbd::extendedChunkHeaderSize>())
                 : Nbd::decodeChunkHeader(std::span(bytes).first<Nbd::chunkHeaderSize>());
  if (!header) throw Disappointment("the chunk is malformed");
  return {.header = *header, .payload = receive(header->length)};
}

std::pair<Nbd::Error, Buffer> RawClient::read(std::uint64_t offset, std::uint32_t length) {
  const std::uint64_t cookie = nextCookie_++;
  request({.type = Nbd::Command::read, .cookie = cookie, .offset = offset, .length = length});
  const Nbd::SimpleReply reply = receiveSimpleReply();
  if (reply.cookie != cookie) throw Disappointment("the reply is to another request");
  return {reply.error, reply.error == Nbd::Error::none ? receive(length) : Buffer()};
}

Nbd::Error RawClient::write(std::uint64_t offset, Nbd::Bytes data, std::uint16_t flags) {
  const std::uint64_t cookie = nextCookie_++;
  request({.flags = flags,
           .type = Nbd::Command::write,
           .cookie = cookie,
           .offset = offset,
           .length = static_cast<std::uint32_t>(data.size())},
          data);
  const Nbd::SimpleReply reply = receiveSimpleReply();
  if (reply.cookie != cookie) throw Disappointment("the reply is to another request");
  return reply.error;
}

void RawClient::disconnect() { request({.type = Nbd::Command::disconnect}); }

}  // namespace Wire
