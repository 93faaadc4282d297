#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "nbd/extension_inquiry.h"
#include "nbdd/reservations/desk.h"
#include "nbdd/reservations/dialogues.h"
#include "nbdd/reservations/limits.h"
#include "tests/support/service_process.h"

namespace Nbdd::Reservations {

/// A server without a wire: a desk, a gate that does as it is told when the test says so, and the loop of
/// both.
class FakeServer : public Gate {
 public:
  static constexpr std::uint32_t iterations = Limits::fewestIterations;  // quick

  explicit FakeServer(AttemptLimiter::Measure attempts = {.atOnce = 1000,
                                                          .pace = std::chrono::seconds(1),
                                                          .longest = std::chrono::seconds(1),
                                                          .networks = 10},
                      std::chrono::milliseconds lease = std::chrono::hours(1))
      : attempts_(attempts), lease_(std::chrono::duration_cast<std::chrono::seconds>(lease)) {
    start();
  }

  /// The process ends, and another one begins.
  void restart() {
    desk.reset();
    clearing = nullptr;
    admitted = everybody;
    start();
  }

  std::optional<Control::Failure> setPassword(std::optional<std::string> password) {
    std::optional<Control::Result<void>> result;
    desk->setPassword(std::move(password), [&](Control::Result<void> answer) { result = std::move(answer); });
    runUntil([&] { return result.has_value(); });
    return *result ? std::nullopt : std::optional(result->error());
  }

  /// The gate's clients have all ended.
  void letClear() {
    ASSERT_TRUE(clearing);
    std::exchange(clearing, nullptr)();
  }

  void runUntil(const std::function<bool()>& condition) {
    // Whatever changes the condition runs on the loop: it is looked at after each turn.
    std::function<void()> look = [&] {
      if (condition()) {
        loop.stop();
      } else {
        loop.defer([&] { loop.post([&] { look(); }); });
      }
    };
    loop.post([&] { look(); });
    loop.run();
  }

  Nbd::Extension::Hello hello() const {
    return {.capabilities = Nbd::Extension::Capability::reservation,
            .server = *Nbd::Extension::parseUuid(uuid),
            .product = "test"};
  }

  const std::string uuid = "0fb5b4a6-6b4e-4b0c-9f35-0f4bd5a0d8d1";
  const std::string everybody = "everybody";
  const std::string nobody = "nobody";
  std::string admitted = everybody;  ///< or a lease's id
  std::vector<std::string> ended;    ///< the leases whose clients were
  std::move_only_function<void()> clearing;
  Testing::TemporaryDirectory directory;
  Io::EventLoop loop;
  std::unique_ptr<Store> store;
  std::unique_ptr<Records> records;
  std::unique_ptr<Desk> desk;

 private:
  void start() {
    store = std::make_unique<Store>(directory.path());
    records = std::make_unique<Records>(*store, *store->load());
    desk = std::make_unique<Desk>(
        loop, *this, *records,
        Desk::Options{.lease = lease_, .iterations = iterations, .attempts = attempts_});
    desk->restore();
  }

  void clear(std::move_only_function<void()> cleared) override {
    admitted = nobody;
    clearing = std::move(cleared);
  }
  void admitOnly(const LeaseId& lease) override { admitted = toText(lease); }
  void admitAll() override { admitted = everybody; }
  void endHolder(const LeaseId& lease) override { ended.push_back(toText(lease)); }

  const AttemptLimiter::Measure attempts_;
  const std::chrono::seconds lease_;
};

/// A host that may hold leases.
struct FakeHost {
  Testing::TemporaryDirectory directory;
  Store store{directory.path()};
  Records records{store, {}};
};

/// One connection to a server, on which a dialogue is held question by question.
class Negotiation {
 public:
  Negotiation(FakeServer& server, Nbd::Extension::Dialogue& dialogue, std::string address = "192.0.2.7",
              ChannelBinding binding = {})
      : server_(server), dialogue_(dialogue), client_{nextClient(), std::move(address), std::move(binding)} {}
  ~Negotiation() { leave(); }
  Negotiation(const Negotiation&) = delete;
  Negotiation& operator=(const Negotiation&) = delete;

  /// Goes on until the dialogue has no more questions, or the server lets it wait. Whether it is at its end.
  bool goOn() {
    while (!waiting_) {
      const std::optional<Nbd::Extension::Question> question = dialogue_.next();
      if (!question) return true;
      waiting_ = true;
      said.push_back(*question);
      if (question->kind == Nbd::Extension::Kind::hello) {
        hear({.body = Nbd::Extension::encodeHello(server_.hello()), .lease = {}});
      } else {
        server_.desk->ask(client_, question->kind, question->body,
                          [this](Told told) { hear(std::move(told)); });
      }
    }
    return false;
  }

  void leave() {
    if (!std::exchange(left_, true)) server_.desk->left(client_.id);
  }

  std::vector<Nbd::Extension::Question> said;
  std::optional<LeaseId> lease;  ///< that the server takes this connection to hold
  bool broken = false;           ///< the dialogue did not accept an answer

 private:
  static std::uint64_t nextClient() {
    static std::uint64_t last = 0;
    return ++last;
  }

  void hear(Told told) {
    waiting_ = false;
    if (told.lease) lease = told.lease;
    if (!told.body) {
      dialogue_.refused({.type = Nbd::ReplyType::invalid, .text = "malformed"});
    } else if (!dialogue_.take(*told.body) || !dialogue_.acknowledged()) {
      broken = true;
    }
  }

  FakeServer& server_;
  Nbd::Extension::Dialogue& dialogue_;
  const Client client_;
  bool waiting_ = false;
  bool left_ = false;
};

inline Nbd::Extension::Inquiry::Wish justHello() {
  Nbd::Extension::Inquiry::Wish wish;
  wish.nothingElse = true;
  return wish;
}

/// A host's attempt to reserve a server.
struct Reserving {
  Reserving(FakeServer& server, FakeHost& host, const std::string& password,
            std::string address = "192.0.2.7", const ChannelBinding& binding = {})
      : inquiry(justHello()),
        dialogue(inquiry, host.records,
                 {.server = {.address = "198.51.100.1", .port = 10809}, .password = password},
                 [binding] { return binding; }),
        negotiation(server, dialogue, std::move(address), binding) {}

  /// Goes through all of it, the server being cleared at once.
  Control::Result<std::chrono::seconds> run(FakeServer& server) {
    while (!negotiation.goOn() && server.clearing) server.letClear();
    return dialogue.result();
  }

  Nbd::Extension::Inquiry inquiry;
  ReservingDialogue dialogue;
  Negotiation negotiation;
};

/// A host's proof that it holds a server.
struct Proving {
  Proving(FakeServer& server, FakeHost& host, Purpose purpose = Purpose::hold,
          const ChannelBinding& here = {}, const ChannelBinding& there = {})
      : inquiry(justHello()),
        dialogue(inquiry, host.records, purpose, [here] { return here; }),
        negotiation(server, dialogue, "192.0.2.7", there) {}

  ProofDialogue::Outcome run() {
    negotiation.goOn();
    return dialogue.outcome();
  }

  Nbd::Extension::Inquiry inquiry;
  ProofDialogue dialogue;
  Negotiation negotiation;
};

}  // namespace Nbdd::Reservations
