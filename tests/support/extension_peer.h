#pragma once

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "nbd/extension.h"
#include "nbd/extension_peers.h"

/// A server's side of the extension that tells what a test put into it.
namespace Wire {

/// Answers with what it was given, each step of it `pauses` steps late.
class ExtensionPeer final : public Nbd::Extension::Handler {
 public:
  using Answer = Nbd::Extension::Answer;
  using Kind = Nbd::Extension::Kind;

  Nbd::Extension::Hello self{.capabilities = Nbd::Extension::Capability::compression,
                             .server = {std::byte{1}, std::byte{2}},
                             .product = "Example 1.0"};
  std::vector<Nbd::Extension::Property> properties;
  std::vector<Nbd::Extension::ExportEntry> exports;
  std::optional<Nbd::Extension::Refusal> refusal;  // of anything but a hello
  int pauses = 0;
  std::vector<Nbd::Extension::Question> asked;

  std::unique_ptr<Answer> answer(Kind kind, Nbd::Bytes body) override {
    asked.push_back({.kind = kind, .body = {body.begin(), body.end()}});
    return std::make_unique<Late>(answerAtOnce(kind, body), pauses);
  }

 private:
  class Late final : public Answer {
   public:
    Late(std::unique_ptr<Answer> answer, int pauses)
        : answer_(std::move(answer)), pauses_(pauses), left_(pauses) {}
    Step next(std::vector<std::byte>& body) override {
      if (left_-- > 0) return Step::wait;
      left_ = pauses_;
      return answer_->next(body);
    }
    Nbd::Extension::Refusal refusal() const override { return answer_->refusal(); }

   private:
    std::unique_ptr<Answer> answer_;
    int pauses_;
    int left_;
  };

  std::unique_ptr<Answer> answerAtOnce(Kind kind, Nbd::Bytes body) const {
    using namespace Nbd::Extension;
    if (kind == Kind::hello) {
      if (!decodeHello(body)) return refused({.type = Nbd::ReplyType::invalid, .text = "malformed hello"});
      return answered(encodeHello(self));
    }
    if (refusal) return refused(*refusal);
    if (kind == Kind::properties) return answered(std::make_shared<std::vector<Property>>(properties));
    if (kind == Kind::exports || kind == Kind::evaluate)
      return answered(std::make_shared<std::vector<ExportEntry>>(exports));
    if (kind == Kind::compression && decodeCompression(body))
      return answered(std::vector<std::byte>(body.begin(), body.end()));
    return refused({.type = Nbd::ReplyType::unsupported, .text = "unknown request"});
  }
};

}  // namespace Wire
