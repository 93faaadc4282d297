#include "nbd/extension_peers.h"

#include <utility>

namespace Nbd::Extension {

namespace {

class KnownAnswer final : public Answer {
 public:
  KnownAnswer(std::vector<std::vector<std::byte>> bodies, std::optional<Refusal> refusal)
      : bodies_(std::move(bodies)), refusal_(std::move(refusal)) {}

  Step next(std::vector<std::byte>& body) override {
    if (given_ == bodies_.size()) return refusal_ ? Step::refusal : Step::end;
    body = std::move(bodies_[given_++]);
    return Step::message;
  }
  Refusal refusal() const override { return refusal_.value_or(Refusal{}); }

 private:
  std::vector<std::vector<std::byte>> bodies_;
  std::size_t given_ = 0;
  std::optional<Refusal> refusal_;
};

bool append(std::vector<std::byte>& body, const ExportEntry& entry) { return appendExport(body, entry); }
bool append(std::vector<std::byte>& body, const Property& property) { return appendProperty(body, property); }

template <class T>
class Entries final : public Answer {
 public:
  explicit Entries(std::shared_ptr<const std::vector<T>> entries) : entries_(std::move(entries)) {}

  Step next(std::vector<std::byte>& body) override {
    while (given_ < entries_->size() && append(body, (*entries_)[given_])) ++given_;
    return body.empty() ? Step::end : Step::message;
  }

 private:
  std::shared_ptr<const std::vector<T>> entries_;
  std::size_t given_ = 0;
};

}  // namespace

std::unique_ptr<Answer> answered(std::vector<std::vector<std::byte>> bodies) {
  return std::make_unique<KnownAnswer>(std::move(bodies), std::nullopt);
}

std::unique_ptr<Answer> answered(std::vector<std::byte> body) {
  std::vector<std::vector<std::byte>> bodies;
  bodies.push_back(std::move(body));
  return answered(std::move(bodies));
}

std::unique_ptr<Answer> answered() { return answered(std::vector<std::vector<std::byte>>()); }

std::unique_ptr<Answer> answered(std::shared_ptr<const std::vector<ExportEntry>> exports) {
  return std::make_unique<Entries<ExportEntry>>(std::move(exports));
}

std::unique_ptr<Answer> answered(std::shared_ptr<const std::vector<Property>> properties) {
  return std::make_unique<Entries<Property>>(std::move(properties));
}

std::unique_ptr<Answer> refused(Refusal refusal) {
  return std::make_unique<KnownAnswer>(std::vector<std::vector<std::byte>>(), std::move(refusal));
}

}  // namespace Nbd::Extension
