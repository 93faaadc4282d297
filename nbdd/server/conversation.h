#pragma once

#include <cstddef>
#include <expected>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "nbd/extension.h"
#include "nbd/extension_peers.h"
#include "nbdd/exports/publication.h"
#include "nbdd/io/thread_pool.h"
#include "nbdd/reservations/desk.h"
#include "nbdd/server/access.h"
#include "nbdd/server/export_table.h"

namespace Nbdd {

/// What the private extension needs of the service. The functions are called on any thread, and outlive the
/// server's threads.
struct ExtensionService {
  using Properties = std::shared_ptr<const std::vector<Nbd::Extension::Property>>;
  using Publications = std::vector<std::shared_ptr<const Publication>>;
  /// The exports that match an encoded DiskSpec expression, or why there are none: INVALID for an expression
  /// that cannot be read, UNSUP where there is nothing to read it. Takes bounded time and memory.
  using Evaluation = std::expected<Publications, Nbd::Extension::Refusal>;

  Nbd::Extension::Hello self;
  /// Has the server's properties told, soon, on any thread.
  std::function<void(std::move_only_function<void(Properties)> told)> askProperties;
  /// Called on a thread of `searches`. Empty: there is no DiskSpec here.
  std::function<Evaluation(std::span<const std::byte> expression, Publications exports)> evaluate;
  /// Where many exports are looked through. Never null where the extension is spoken.
  Io::ThreadPool* searches = nullptr;
  /// Asks the desk on the control loop; the answer is told there. Empty: this server cannot be reserved.
  std::function<void(Reservations::Client client, Nbd::Extension::Kind kind, std::vector<std::byte> body,
                     Reservations::Tell tell)>
      askDesk;
  /// Tells the desk that the client's handshake is over.
  std::function<void(std::uint64_t client)> leftDesk;
};

/// The server's side of the extension on one connection: answers what the client asks, and keeps what was
/// agreed on. One worker's thread.
class Conversation final : public Nbd::Extension::Handler {
 public:
  /// `visitor` is the client too, as the allow lists know it. `wake` is called, on any thread but never after
  /// this has been destroyed, when an answer that was waited for has come. All else outlives this.
  Conversation(const ExtensionService& service, const ExportTable& table, Reservations::Client client,
               Visitor visitor, std::function<void()> wake);
  ~Conversation() override;
  Conversation(const Conversation&) = delete;
  Conversation& operator=(const Conversation&) = delete;

  std::unique_ptr<Nbd::Extension::Answer> answer(Nbd::Extension::Kind kind, Nbd::Bytes body) override;

  /// What was agreed on about compressed transfers.
  const std::optional<Nbd::Extension::Compression>& compression() const { return compression_; }

  /// The lease of this server that the client has proven to hold.
  const std::optional<Reservations::LeaseId>& lease() const { return lease_; }

  /// The handshake is over: the client asks nothing more.
  void finished();

 private:
  using Answer = Nbd::Extension::Answer;
  class Later;
  class Told;
  class Ear;
  struct Outcome;

  std::unique_ptr<Answer> hello(Nbd::Bytes body);
  std::unique_ptr<Answer> properties();
  std::unique_ptr<Answer> exports();
  std::unique_ptr<Answer> evaluate(Nbd::Bytes body);
  std::unique_ptr<Answer> agreeOnCompression(Nbd::Bytes body);
  std::unique_ptr<Answer> askDesk(Nbd::Extension::Kind kind, Nbd::Bytes body);

  std::shared_ptr<Outcome> newOutcome() const;
  std::unique_ptr<Answer> search(std::move_only_function<std::unique_ptr<Answer>()> job);

  const ExtensionService& service_;
  const ExportTable& table_;
  const std::shared_ptr<Ear> ear_;
  std::optional<Nbd::Extension::Compression> compression_;
  const Reservations::Client client_;
  const Visitor visitor_;
  bool askedDesk_ = false;
  std::optional<Reservations::LeaseId> lease_;
};

}  // namespace Nbdd
