#include "nbdd/server/session.h"

#include <algorithm>
#include <cerrno>
#include <expected>
#include <iterator>
#include <utility>

#include "nbdd/limits.h"
#include "nbdd/log/log.h"
#include "nbdd/server/admitted_directory.h"
#include "nbdd/server/worker.h"
#include "nbdd/tls/handshake.h"

namespace Nbdd {

namespace {

/// The exports as one client sees them: those that it may not use are not listed, and refused.
class ClientDirectory final : public Nbd::ExportDirectory {
 public:
  ClientDirectory(const Nbd::ExportDirectory& all, Visitor visitor, const Control::Endpoint& client)
      : all_(all), visitor_(std::move(visitor)), client_(client) {}

  std::optional<Nbd::ExportView> find(std::string_view name) const override {
    std::optional<Nbd::ExportView> view = all_.find(name);
    if (view && !visitor_.sees(view->name)) {
      log(LogLevel::warning, "client-not-allowed",
          "refused the export \"{}\" to client {} port {}: its network is not allowed", escaped(view->name),
          client_.address, client_.port);
      view->refusal = "this export is not for your network";
    }
    return view;
  }

  std::shared_ptr<const std::vector<Nbd::ListedExport>> list() const override {
    if (visitor_.seesAll()) return all_.list();
    const auto all = all_.list();
    auto seen = std::make_shared<std::vector<Nbd::ListedExport>>();
    std::ranges::copy_if(*all, std::back_inserter(*seen),
                         [this](const Nbd::ListedExport& each) { return visitor_.sees(each.name); });
    return seen;
  }

 private:
  const Nbd::ExportDirectory& all_;
  const Visitor visitor_;
  const Control::Endpoint& client_;
};

}  // namespace

Session::Session(Worker& worker, SessionId id, Io::FileDescriptor socket, Control::Endpoint peer)
    : worker_(worker),
      id_(id),
      peer_(std::move(peer)),
      stream_(worker.loop(), std::move(socket)),
      sender_(stream_, worker.buffers()),
      wake_(worker.loop()),
      deadline_(worker.loop(), [this] { abort(); }) {}

Io::Task<void> Session::run() {
  deadline_.start(Limits::handshakeTime);
  Io::Task<std::optional<Agreement>> negotiation = negotiate();
  std::optional<Agreement> agreement = co_await negotiation;
  if (agreement) {
    Io::Task<void> serving = serve(std::move(*agreement));
    co_await serving;
  }
  ending_ = true;  // who asks for it from here on is late: only the deadlines cut it short
  deadline_.start(Limits::lastRepliesTime);
  Io::Task<void> finishing = sender_.finish();
  co_await finishing;
  if (!sender_.failed()) {
    deadline_.start(Limits::lingerTime);
    Io::Task<void> lingering = linger();
    co_await lingering;
  }
  deadline_.cancel();
  worker_.sessionEnded(id_);
}

/// Ends our side and waits for the client's end. Closing while bytes of the client are unread would reset the
/// connection, and the client might lose the last replies.
Io::Task<void> Session::linger() {
  stream_.endSending();
  stream_.resumeReading();
  for (;;) {
    const ssize_t count = stream_.receive(worker_.inputMemory());
    if (count == -EAGAIN) {
      Io::Stream::Waiting readable = stream_.readable();
      co_await readable;
    } else if (count <= 0) {
      co_return;
    } else {
      // Whoever sends without end would keep the others waiting, and this session's deadline too.
      Io::EndOfTurn turn(worker_.loop());
      co_await turn;
    }
  }
}

std::unique_ptr<Conversation> Session::beginConversation(Visitor visitor) {
  const ExtensionService* const extension = worker_.events().extension;
  if (extension == nullptr) {
    return nullptr;
  }
  Reservations::Client client{.id = id_, .address = peer_.address, .binding = {}};
  if (const std::vector<std::byte> binding = stream_.channelBinding(); !binding.empty()) {
    client.binding.emplace(reinterpret_cast<const char*>(binding.data()), binding.size());
  }
  return std::make_unique<Conversation>(*extension, worker_.table(), std::move(client), std::move(visitor),
                                        [worker = &worker_, id = id_] { worker->wakeSession(id); });
}

Io::Task<std::optional<Session::Agreement>> Session::negotiate() {
  using State = Nbd::ServerHandshake::State;
  const std::shared_ptr<const Access> access = worker_.table().access();
  const Visitor visitor{.access = access, .address = HostAddress::parse(peer_.address)};
  const ClientDirectory allowed(worker_.table(), visitor, peer_);
  const AdmittedDirectory directory(allowed, worker_.table(), conversation_);
  conversation_ = beginConversation(visitor);
  Nbd::ServerHandshake handshake(directory, {.tls = access->tls}, conversation_.get());
  std::vector<std::byte> output;
  handshake.greet(output);
  std::size_t used = 0;  // of what was received, from its front
  for (;;) {
    Io::Task<bool> sending = sendAll(output);
    const bool sent = co_await sending;
    if (!sent || ending_) {
      co_return std::nullopt;
    }
    const Nbd::ServerHandshake::Progress progress =
        handshake.advance(std::span(received_).subspan(used), output);
    used += progress.consumed;
    if (progress.state == State::failed) {
      co_return std::nullopt;
    }
    if (progress.state == State::startTls) {
      Io::Task<bool> securing = secure(access, output);
      const bool secured = co_await securing;
      if (!secured) {
        co_return std::nullopt;
      }
      // What the client asked for in the clear is forgotten.
      std::unique_ptr<Conversation> anew = beginConversation(visitor);
      handshake.secured(anew.get());
      conversation_ = std::move(anew);
      received_.clear();
      used = 0;
      continue;
    }
    if (progress.state != State::negotiating) {
      received_.erase(received_.begin(), received_.begin() + static_cast<std::ptrdiff_t>(used));
      sender_.send(output);
      co_return progress.state == State::transmission ? std::optional(handshake.agreement()) : std::nullopt;
    }
    if (progress.waiting && output.empty()) {
      Io::Signal::Waiting answered = wake_.wait();
      co_await answered;
    } else if (progress.consumed == 0 && output.empty()) {
      received_.erase(received_.begin(), received_.begin() + static_cast<std::ptrdiff_t>(used));
      used = 0;
      Io::Task<bool> receiving = receiveMore();
      const bool received = co_await receiving;
      if (!received) {
        co_return std::nullopt;
      }
    } else {
      if (progress.granted) {
        deadline_.start(Limits::handshakeTime);
      }
      // Thousands of options may have arrived at once: other connections come in between.
      Io::EndOfTurn turn(worker_.loop());
      co_await turn;
    }
  }
}

/// Says yes to the client that asked for TLS, and makes the connection secure.
Io::Task<bool> Session::secure(std::shared_ptr<const Access> access,
                               std::vector<std::byte>& acknowledgement) {
  deadline_.start(Limits::handshakeTime);
  Io::Task<bool> sending = sendAll(acknowledgement);
  const bool sent = co_await sending;
  if (!sent || ending_) {
    co_return false;
  }
  securing_ = std::stop_source();
  Tls::Aside aside{.pool = worker_.handshakes(), .deadline = deadline_, .givenUp = securing_.get_token()};
  auto shaking = Tls::shakeHands(stream_, std::move(aside), access->credentials);
  const std::expected<Tls::Peer, std::string> peer = co_await shaking;
  securing_ = std::stop_source(std::nostopstate);
  if (!peer) {
    log(LogLevel::warning, "tls-failed", "TLS with client {} port {} has failed: {}", peer_.address,
        peer_.port, peer.error());
    co_return false;
  }
  deadline_.start(Limits::handshakeTime);
  security_ = peer->description();
  co_return true;
}

/// Awaits that all of it is sent: a client that does not read gets no further answers.
Io::Task<bool> Session::sendAll(std::vector<std::byte>& output) {
  sender_.send(output);
  output.clear();
  while (!sender_.failed() && !sender_.idle()) {
    Io::Signal::Waiting progress = sender_.progress().wait();
    co_await progress;
  }
  co_return !sender_.failed();
}

Io::Task<bool> Session::receiveMore() {
  for (;;) {
    const std::span<std::byte> memory = worker_.inputMemory();
    const ssize_t count = stream_.receive(memory);
    if (count > 0) {
      const auto bytes = memory.first(static_cast<std::size_t>(count));
      received_.insert(received_.end(), bytes.begin(), bytes.end());
      co_return true;
    }
    if (count != -EAGAIN) {
      co_return false;
    }
    Io::Stream::Waiting readable = stream_.readable();
    const Io::Stream::Wake woken = co_await readable;
    if (woken == Io::Stream::Wake::interrupted) {
      co_return false;
    }
  }
}

Io::Task<bool> Session::attach(std::shared_ptr<const Publication> publication) {
  for (;;) {
    const ExportTable::Attachment attachment =
        worker_.table().attach(publication,
                               {.id = id_,
                                .worker = &worker_,
                                .socket = stream_.descriptor(),
                                .peer = peer_,
                                .lease = conversation_ ? conversation_->lease() : std::nullopt,
                                .security = security_},
                               [worker = &worker_, id = id_] { worker->wakeSession(id); });
    if (attachment == ExportTable::Attachment::outOfDescriptors) {
      log(LogLevel::warning, "out-of-descriptors",
          "export {}: turned client {} port {} away: no descriptors are left",
          static_cast<std::uint32_t>(publication->id), peer_.address, peer_.port);
    }
    if (attachment != ExportTable::Attachment::mustWait) {
      co_return attachment == ExportTable::Attachment::attached;
    }
    for (const AttachedSession& gone : worker_.table().sessionsOfGonePeers(publication->id)) {
      gone.worker->hurrySession(gone.id);
    }
    Io::Signal::Waiting wait = wake_.wait();
    co_await wait;
    if (ending_) {
      co_return false;
    }
  }
}

Io::Task<void> Session::serve(Agreement agreement) {
  const auto publication = std::static_pointer_cast<const Publication>(agreement.exportView.handle);
  if (conversation_) {
    conversation_->finished();
  }
  Io::Task<bool> attaching = attach(publication);
  const bool attached = co_await attaching;
  deadline_.cancel();
  if (!attached) {
    co_return;
  }
  log(LogLevel::info, "client-came", "export {}: client {} port {} uses it{}{}",
      static_cast<std::uint32_t>(publication->id), peer_.address, peer_.port,
      security_.empty() ? "" : ", by ", security_);
  transmission_ = std::make_unique<Transmission>(worker_, stream_, sender_, publication, agreement,
                                                 conversation_ ? conversation_->compression() : std::nullopt);
  if (!ending_) {
    Io::Task<void> transmitting = transmission_->run(std::move(received_));
    co_await transmitting;
  }
  // The requests have ended: from here on nothing of this client can reach the storage any more.
  worker_.table().detach(publication->id, id_);
  log(LogLevel::info, "client-left", "export {}: client {} port {} {}",
      static_cast<std::uint32_t>(publication->id), peer_.address, peer_.port,
      ending_ ? "was disconnected" : "has left");
}

void Session::end() {
  if (!ending_) {
    ending_ = true;
    deadline_.start(Limits::lastRepliesTime);
    securing_.request_stop();
    if (transmission_) {
      transmission_->stop();
    }
    wake_.notify();
    stream_.interruptReading();
  }
}

void Session::hurry() {
  if (transmission_ && !ending_ && !deadline_.running()) {
    deadline_.start(Limits::lastRepliesTime);
  }
}

void Session::abort() {
  sender_.fail();
  end();
}

}  // namespace Nbdd
