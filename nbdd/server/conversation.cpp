#include "nbdd/server/conversation.h"

#include <algorithm>
#include <mutex>
#include <utility>

#include "nbd/contract.h"
#include "nbdd/limits.h"

// What takes time (a hundred thousand exports to look through) runs on a thread for searches, apart from
// those that wait for storage, and what belongs to the control loop is asked there; the answer waits
// meanwhile, and nobody else does. The exports are taken from the table when the search begins, so that those
// who wait for their turn hold nothing. The outcome is left where both sides find it, and the ear outlives
// whichever of them ends first.

namespace Nbdd {

namespace {

using namespace Nbd::Extension;
using Nbd::ReplyType;

ExportEntry entryOf(const Publication& publication) {
  return {.uuid = parseUuid(publication.uuid).value_or(Uuid{}),
          .size = publication.storage->size(),
          .flags = publication.storage->transmissionFlags(),
          .name = publication.name};
}

/// The exports that the client may know of.
ExtensionService::Publications seenBy(const Visitor& visitor, const ExportTable& table) {
  ExtensionService::Publications publications = table.publications();
  if (!visitor.seesAll()) {
    std::erase_if(publications, [&](const auto& each) { return !visitor.sees(each->name); });
  }
  return publications;
}

std::unique_ptr<Answer> answeredWith(const ExtensionService::Publications& publications) {
  auto entries = std::make_shared<std::vector<ExportEntry>>();
  entries->reserve(publications.size());
  for (const auto& publication : publications) entries->push_back(entryOf(*publication));
  return answered(std::move(entries));
}

std::unique_ptr<Answer> malformed() {
  return refused({.type = ReplyType::invalid, .text = "malformed request of the extension"});
}

}  // namespace

/// Where word of an outcome goes, for as long as somebody listens.
class Conversation::Ear {
 public:
  explicit Ear(std::function<void()> wake) : wake_(std::move(wake)) {}
  void tell() {
    const std::lock_guard lock(mutex_);
    if (wake_) wake_();
  }
  void close() {
    const std::lock_guard lock(mutex_);
    wake_ = nullptr;
  }

 private:
  std::mutex mutex_;
  std::function<void()> wake_;
};

/// An answer on its way from another thread.
struct Conversation::Outcome {
  explicit Outcome(std::shared_ptr<Ear> listener) : ear(std::move(listener)) {}

  void set(std::unique_ptr<Answer> result) {
    {
      const std::lock_guard lock(mutex);
      answer = std::move(result);
    }
    ear->tell();
  }

  const std::shared_ptr<Ear> ear;
  std::mutex mutex;
  std::unique_ptr<Answer> answer;  // guarded by mutex, until it is there
};

class Conversation::Later final : public Answer {
 public:
  explicit Later(std::shared_ptr<Outcome> outcome) : outcome_(std::move(outcome)) {}

  Step next(std::vector<std::byte>& body) override {
    if (!answer_) {
      const std::lock_guard lock(outcome_->mutex);
      answer_ = std::move(outcome_->answer);
    }
    return answer_ ? answer_->next(body) : Step::wait;
  }
  Nbd::Extension::Refusal refusal() const override { return answer_->refusal(); }

 private:
  std::shared_ptr<Outcome> outcome_;
  std::unique_ptr<Answer> answer_;
};

/// What the desk says. The lease that it has seen proven counts from the moment at which the client is told.
class Conversation::Told final : public Answer {
 public:
  Told(std::optional<Reservations::LeaseId>& lease, Reservations::Told told)
      : lease_(lease), told_(std::move(told)) {}

  Step next(std::vector<std::byte>& body) override {
    if (isTold_) return Step::end;
    if (!told_.body) return Step::refusal;
    isTold_ = true;
    body = std::move(*told_.body);
    if (told_.lease) lease_ = told_.lease;
    return Step::message;
  }
  Nbd::Extension::Refusal refusal() const override {
    return {.type = ReplyType::invalid, .text = "malformed request of the extension, or out of place"};
  }

 private:
  std::optional<Reservations::LeaseId>& lease_;
  Reservations::Told told_;
  bool isTold_ = false;
};

Conversation::Conversation(const ExtensionService& service, const ExportTable& table,
                           Reservations::Client client, Visitor visitor, std::function<void()> wake)
    : service_(service),
      table_(table),
      ear_(std::make_shared<Ear>(std::move(wake))),
      client_(std::move(client)),
      visitor_(std::move(visitor)) {}

Conversation::~Conversation() {
  ear_->close();
  finished();
}

void Conversation::finished() {
  if (std::exchange(askedDesk_, false)) service_.leftDesk(client_.id);
}

std::shared_ptr<Conversation::Outcome> Conversation::newOutcome() const {
  return std::make_shared<Outcome>(ear_);
}

std::unique_ptr<Answer> Conversation::search(std::move_only_function<std::unique_ptr<Answer>()> job) {
  auto outcome = newOutcome();
  service_.searches->submit([outcome, job = std::move(job)]() mutable { outcome->set(job()); });
  return std::make_unique<Later>(std::move(outcome));
}

std::unique_ptr<Answer> Conversation::answer(Kind kind, Nbd::Bytes body) {
  switch (kind) {
    case Kind::hello:
      return hello(body);
    case Kind::properties:
      if (!body.empty()) return malformed();
      return properties();
    case Kind::exports:
      if (!body.empty()) return malformed();
      return exports();
    case Kind::evaluate:
      return evaluate(body);
    case Kind::compression:
      return agreeOnCompression(body);
    default:
      if (kind >= Kind::reserve && kind <= Kind::reserveLast && service_.askDesk) return askDesk(kind, body);
      return refused({.type = ReplyType::unsupported, .text = "this server does not know that request"});
  }
}

std::unique_ptr<Answer> Conversation::hello(Nbd::Bytes body) {
  if (!decodeHello(body)) return malformed();
  return answered(encodeHello(service_.self));
}

std::unique_ptr<Answer> Conversation::properties() {
  auto outcome = newOutcome();
  service_.askProperties(
      [outcome](ExtensionService::Properties told) { outcome->set(answered(std::move(told))); });
  return std::make_unique<Later>(std::move(outcome));
}

std::unique_ptr<Answer> Conversation::exports() {
  return search([&table = table_, visitor = visitor_] { return answeredWith(seenBy(visitor, table)); });
}

std::unique_ptr<Answer> Conversation::evaluate(Nbd::Bytes body) {
  if (!service_.evaluate)
    return refused({.type = ReplyType::unsupported, .text = "this server evaluates no expressions"});
  return search([&service = service_, &table = table_, visitor = visitor_,
                 expression = std::vector(body.begin(), body.end())]() -> std::unique_ptr<Answer> {
    const auto found = service.evaluate(expression, seenBy(visitor, table));
    return found ? answeredWith(*found) : refused(found.error());
  });
}

std::unique_ptr<Answer> Conversation::agreeOnCompression(Nbd::Bytes body) {
  const std::optional<Compression> wanted = decodeCompression(body);
  if (!wanted || wanted->blockLength == 0) return malformed();
  const bool offered = (service_.self.capabilities & Capability::compression) != 0;
  if (!offered || wanted->algorithm != Compression::Algorithm::zstd)
    return refused({.type = ReplyType::unsupported, .text = "transfers are not compressed so here"});
  compression_ = *wanted;
  return answered(encodeCompression(*compression_));
}

std::unique_ptr<Answer> Conversation::askDesk(Kind kind, Nbd::Bytes body) {
  auto outcome = newOutcome();
  askedDesk_ = true;
  service_.askDesk(client_, kind, std::vector(body.begin(), body.end()),
                   [outcome, &lease = lease_](Reservations::Told told) {
                     outcome->set(std::make_unique<Told>(lease, std::move(told)));
                   });
  return std::make_unique<Later>(std::move(outcome));
}

}  // namespace Nbdd
