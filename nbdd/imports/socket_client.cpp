#include "nbdd/imports/socket_client.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

#include "nbdd/limits.h"

namespace Nbdd {

namespace {

/// Flags that mean the same to the remote server. How data are cut into chunks and how requests are framed is
/// everybody's own business.
constexpr std::uint16_t passedOn =
    Nbd::CommandFlag::fua | Nbd::CommandFlag::noHole | Nbd::CommandFlag::reqOne | Nbd::CommandFlag::fastZero;

constexpr std::size_t inputLength = Limits::importInput;

}  // namespace

// --- One request and its answer

class SocketClient::Exchange final : public Remote::Request {
 public:
  explicit Exchange(SocketClient& client) : client_(client) {}

  /// Gets ready for a new request; returns the memory for its data.
  std::span<std::byte> prepare(const Nbd::Request& request) {
    wire_ = request;
    command = request.type;
    flags = request.flags & passedOn;
    offset = request.offset;
    length = request.length;
    destination = {};
    payload = {};
    extents = request.type == Nbd::Command::blockStatus ? &found_ : nullptr;
    held_ = 0;
    const bool isRead = request.type == Nbd::Command::read;
    if (!isRead && request.type != Nbd::Command::write) return {};
    // The reply's header and the data of a read leave as one piece.
    const std::size_t header = isRead ? client_.replies_.dataHeaderSize() : 0;
    held_ = header + request.length;
    buffer_ = client_.buffers_.take(held_);
    const std::span<std::byte> data = buffer_.bytes().subspan(header);
    if (isRead) {
      destination = data;
    } else {
      payload = data;
    }
    return data;
  }

  /// Passes the request on, or the next part of one that is too long for the server.
  void submit() {
    const std::uint64_t done = offset - wire_.offset;
    length = std::min(wire_.length - done, Remote::Device::maximumLength(client_.device_.limits()));
    client_.device_.submit(*this);
  }

  void done(Nbd::Error error) override {
    const bool inParts = command != Nbd::Command::blockStatus;
    if (error == Nbd::Error::none && inParts && offset + length < wire_.offset + wire_.length) {
      offset += length;
      return submit();
    }
    reply(error);
    buffer_ = {};
    client_.bytesInFlight_ -= held_;
    --client_.inFlight_;
    client_.free_.push_back(this);
    client_.answered_.notify();
  }

  /// For a server that tells nothing of its allocation: everything may be data, which is always true.
  void answerUnknown() {
    found_.assign(1, {.length = wire_.length, .status = 0});
    replyBlockStatus();
    client_.free_.push_back(this);
  }

  std::size_t held() const { return held_; }

 private:
  void reply(Nbd::Error error) {
    const Nbd::ReplyEncoder& replies = client_.replies_;
    if (error == Nbd::Error::none && command == Nbd::Command::read) {
      replies.dataHeader(buffer_.bytes(), wire_, Nbd::ReplyFlag::done, wire_.offset, wire_.length);
      return client_.sender_.post(std::move(buffer_), held_);
    }
    if (error == Nbd::Error::none && command == Nbd::Command::blockStatus) return replyBlockStatus();
    std::array<std::byte, Nbd::ReplyEncoder::maxVerdictSize> bytes;
    const std::size_t size =
        error == Nbd::Error::none ? replies.success(bytes, wire_) : replies.failure(bytes, wire_, error);
    client_.sender_.post(std::span(bytes).first(size));
  }

  void replyBlockStatus() {
    // No more than was asked for, so that lengths fit whatever form the program has agreed on.
    std::uint64_t left = wire_.length;
    std::size_t count = 0;
    while (count < std::min(found_.size(), Nbd::maxExtentsSent) && left > 0) {
      found_[count].length = std::min(found_[count].length, left);
      left -= found_[count++].length;
    }
    found_.resize(count);
    Io::Buffer bytes = client_.buffers_.take(client_.replies_.blockStatusSize(count));
    const std::size_t size = client_.replies_.blockStatus(bytes.bytes(), wire_, Nbd::ReplyFlag::done,
                                                          client_.allocationContext_, found_);
    client_.sender_.post(std::move(bytes), size);
  }

  SocketClient& client_;
  Nbd::Request wire_;
  Io::Buffer buffer_;
  std::size_t held_ = 0;  // bytes of buffer_
  std::vector<Nbd::Extent> found_;
};

// --- Life

SocketClient::SocketClient(Io::EventLoop& loop, Remote::Device& device, Io::BufferPool& buffers,
                           Io::FileDescriptor socket, std::function<void()> changed)
    : loop_(loop),
      device_(device),
      buffers_(buffers),
      changed_(std::move(changed)),
      stream_(loop, std::move(socket)),
      sender_(stream_, buffers),
      answered_(loop),
      deadline_(loop, [this] { end(); }),
      look_(loop,
            [this] {
              timeToLook_ = true;
              answered_.notify();
            }),
      input_(inputLength) {}

SocketClient::~SocketClient() = default;

Io::Task<void> SocketClient::run(const Nbd::ExportDirectory& exports) {
  deadline_.start(Limits::handshakeTime);
  Io::Task<bool> negotiating = negotiate(exports);
  const bool agreed = co_await negotiating;
  deadline_.cancel();
  if (agreed) {
    Io::Task<void> using_ = use();
    co_await using_;
  }
  Io::Task<void> finishing = finish();
  co_await finishing;
}

Io::Task<void> SocketClient::runAgreed(Nbd::ExportLimits limits) {
  limits_ = limits;
  replies_ = Nbd::ReplyEncoder(limits_.headers);
  Io::Task<void> using_ = use();
  co_await using_;
  Io::Task<void> finishing = finish();
  co_await finishing;
}

/// The transmission phase.
Io::Task<void> SocketClient::use() {
  setInUse(true);
  Io::Task<void> serving = serve();
  co_await serving;
  // Data that did not arrive to the end are not written.
  if (writing_ != nullptr) bytesInFlight_ -= writing_->held();
  while (inFlight_ > 0) {
    Io::Signal::Waiting waiting = answered_.wait();
    co_await waiting;
  }
}

/// Sends what is not sent yet, as far as somebody takes it.
Io::Task<void> SocketClient::finish() {
  deadline_.start(Limits::lastRepliesTime);
  Io::Task<void> finishing = sender_.finish();
  co_await finishing;
  deadline_.cancel();
  setInUse(false);
}

void SocketClient::setInUse(bool inUse) {
  if (inUse_ == inUse) return;
  inUse_ = inUse;
  changed_();
}

void SocketClient::end() {
  ending_ = true;
  sender_.fail();
  stream_.shutDown();  // wakes whoever waits for it, from the loop
  answered_.notify();
}

Io::Task<bool> SocketClient::negotiate(const Nbd::ExportDirectory& exports) {
  using State = Nbd::ServerHandshake::State;
  Nbd::ServerHandshake handshake(exports, {});
  std::vector<std::byte> output;
  handshake.greet(output);
  for (;;) {
    sender_.send(output);
    output.clear();
    const auto progress = handshake.advance(std::span(input_).subspan(begin_, end_ - begin_), output);
    begin_ += progress.consumed;
    if (progress.state == State::failed || ending_ || sender_.failed()) co_return false;
    if (progress.state != State::negotiating) {
      sender_.send(output);
      if (progress.state != State::transmission) co_return false;
      break;
    }
    if (progress.consumed == 0 && output.empty()) {
      Io::Task<bool> receiving = receiveMore();
      const bool received = co_await receiving;
      if (!received) co_return false;
    } else if (sender_.pending() > Limits::pendingReplies) {
      co_return false;  // asks a lot, and reads nothing
    }
  }
  const Nbd::ServerHandshake::Agreement& agreement = handshake.agreement();
  limits_ = agreement.limits();
  replies_ = Nbd::ReplyEncoder(limits_.headers);
  allocationContext_ = agreement.allocationContext.value_or(0);
  co_return true;
}

// --- Receiving

/// Where the next bytes go. What is not used yet moves to the front.
std::span<std::byte> SocketClient::room() {
  if (begin_ > 0) {
    std::copy(input_.begin() + static_cast<std::ptrdiff_t>(begin_),
              input_.begin() + static_cast<std::ptrdiff_t>(end_), input_.begin());
    end_ -= begin_;
    begin_ = 0;
  }
  return std::span(input_).subspan(end_);
}

/// Takes what has arrived, up to some amount; as Stream::receive.
ssize_t SocketClient::receive() {
  // The data of a large write go straight to their place; nothing stands before them.
  const bool direct = writing_ != nullptr;
  const ssize_t count = stream_.receive(direct ? missing_ : room());
  if (count > 0 && direct) {
    missing_ = missing_.subspan(static_cast<std::size_t>(count));
  } else if (count > 0) {
    end_ += static_cast<std::size_t>(count);
  }
  return count;
}

/// Awaits more input. False: there is none any more.
Io::Task<bool> SocketClient::receiveMore() {
  bool knownEmpty = stream_.drained();
  bool waitedLong = false;
  while (!ending_) {
    const ssize_t count = knownEmpty ? -EAGAIN : receive();
    if (count > 0) {
      if (waitedLong) watch_.keptWaiting();
      co_return true;
    }
    if (count != -EAGAIN) co_return false;
    if (writing_ != nullptr || waitedLong || watch_.isNeeded(inFlight_)) {
      waitedLong = false;
      Io::Stream::Waiting readable = stream_.readable();
      co_await readable;
    } else {
      Io::Task<bool> lookingAway = lookAway();
      const bool answered = co_await lookingAway;
      waitedLong = !answered;
    }
    knownEmpty = false;
  }
  co_return false;
}

/// Awaits an answer to any request of the program, which is not watched meanwhile. False: there is none yet,
/// but it is time to look at the program.
Io::Task<bool> SocketClient::lookAway() {
  timeToLook_ = false;
  stream_.rest();
  look_.start(ProgramWatch::lookTime);
  Io::Signal::Waiting answered = answered_.wait();
  co_await answered;
  look_.cancel();
  co_return !timeToLook_;
}

bool SocketClient::hasRoom() const {
  return inFlight_ < Limits::requestsInFlight && bytesInFlight_ < Limits::connectionPayload &&
         sender_.pending() < Limits::pendingReplies;
}

Io::Task<void> SocketClient::serve() {
  while (!ending_ && !sender_.failed()) {
    if (!hasRoom()) {
      // Whichever ends first makes room: a request, or the sending of its reply.
      Io::Signal& signal = sender_.pending() >= Limits::pendingReplies ? sender_.progress() : answered_;
      Io::Signal::Waiting waiting = signal.wait();
      co_await waiting;
      continue;
    }
    if (takeInput()) continue;
    if (ending_) co_return;
    watch_.turned(inFlight_, bytesInFlight_);
    if (!stream_.drained()) {
      Io::EndOfTurn turn(loop_);
      co_await turn;
    }
    Io::Task<bool> receiving = receiveMore();
    const bool received = co_await receiving;
    if (!received) co_return;
  }
}

/// Uses a piece of what has arrived. False: more has to arrive first, or the program has left.
bool SocketClient::takeInput() {
  const std::size_t available = end_ - begin_;
  if (skip_ > 0) {
    const std::size_t part = std::min<std::uint64_t>(available, skip_);
    begin_ += part;
    skip_ -= part;
    return part > 0;
  }
  if (writing_ == nullptr) return takeRequest();
  const std::size_t part = std::min(available, missing_.size());
  std::copy_n(input_.begin() + static_cast<std::ptrdiff_t>(begin_), part, missing_.begin());
  begin_ += part;
  missing_ = missing_.subspan(part);
  if (!missing_.empty()) return false;
  submitWrite();
  return true;
}

bool SocketClient::takeRequest() {
  const std::span<const std::byte> rest = std::span(input_).subspan(begin_, end_ - begin_);
  const std::size_t size = Nbd::requestSizeOf(limits_.headers);
  if (rest.size() < size) return false;
  const auto request = limits_.headers == Nbd::HeaderStyle::extended
                           ? Nbd::decodeExtendedRequest(rest.first<Nbd::extendedRequestSize>())
                           : Nbd::decodeRequest(rest.first<Nbd::requestSize>());
  begin_ += size;
  if (!request || request->type == Nbd::Command::disconnect || !begin(*request)) {
    ending_ = true;
    return false;
  }
  return true;
}

/// False: the program is to be disconnected.
bool SocketClient::begin(const Nbd::Request& request) {
  if (const auto error = Nbd::validate(request, limits_)) {
    refuse(request, *error);
    skip_ = Nbd::payloadLength(request, limits_.headers);
    return Nbd::payloadIsDrained(request, limits_);
  }
  if (request.length == 0 && request.type != Nbd::Command::flush) {
    std::array<std::byte, Nbd::ReplyEncoder::maxVerdictSize> bytes;
    sender_.post(std::span(bytes).first(replies_.success(bytes, request)));
    return true;
  }
  Exchange& exchange = newExchange();
  const std::span<std::byte> data = exchange.prepare(request);
  if (request.type == Nbd::Command::blockStatus && !device_.limits().blockStatus) {
    exchange.answerUnknown();
    return true;
  }
  bytesInFlight_ += exchange.held();
  if (request.type == Nbd::Command::write) {
    writing_ = &exchange;
    missing_ = data;
    return true;
  }
  ++inFlight_;
  exchange.submit();
  return true;
}

void SocketClient::refuse(const Nbd::Request& request, Nbd::Error error) {
  std::array<std::byte, Nbd::ReplyEncoder::maxVerdictSize> bytes;
  sender_.post(std::span(bytes).first(replies_.failure(bytes, request, error)));
}

SocketClient::Exchange& SocketClient::newExchange() {
  if (free_.empty()) {
    exchanges_.push_back(std::make_unique<Exchange>(*this));
    return *exchanges_.back();
  }
  Exchange& exchange = *free_.back();
  free_.pop_back();
  return exchange;
}

void SocketClient::submitWrite() {
  Exchange& exchange = *std::exchange(writing_, nullptr);
  ++inFlight_;
  exchange.submit();
}

}  // namespace Nbdd
