// The platform's DiskSpec library on top of diskspec/.

#include "platform/disk_spec.h"

#include <utility>

#include "diskspec/expression.h"

namespace Host {

namespace {

using Libraries::DiskSpec::Expression;
using Libraries::DiskSpec::Parser;

class CompiledExpression final : public Expression {
 public:
  explicit CompiledExpression(::DiskSpec::Expression expression) : expression_(std::move(expression)) {}

  [[nodiscard]] Ref<String> text() const override { return String::create(expression_.text()); }
  [[nodiscard]] std::vector<std::byte> encode() const override { return ::DiskSpec::encode(expression_); }
  [[nodiscard]] std::unique_ptr<Expression> clone() const override {
    return std::make_unique<CompiledExpression>(expression_);
  }

 private:
  ::DiskSpec::Expression expression_;
};

class CompilingParser final : public Parser {
 public:
  CompilingParser(Ref<String> text, const Settings& settings) : text_(std::move(text)) {
    auto compiled = ::DiskSpec::compile(text_->view(), settings.lenient);
    if (compiled) {
      expression_ = std::make_unique<CompiledExpression>(std::move(*compiled));
    } else {
      failure_ = {.number = static_cast<std::uint8_t>(compiled.error().number),
                  .offset = compiled.error().offset};
    }
  }

  [[nodiscard]] bool succeeded() const override { return failure_.number == 0; }
  [[nodiscard]] std::unique_ptr<Expression> takeExpression() override { return std::move(expression_); }
  [[nodiscard]] Ref<String> text() const override { return text_; }
  [[nodiscard]] Failure failure() const override { return failure_; }

 private:
  Ref<String> text_;
  std::unique_ptr<Expression> expression_;
  Failure failure_;
};

}  // namespace

}  // namespace Host

namespace Libraries::DiskSpec {

std::unique_ptr<Parser> Parser::parse(Ref<String> text, const Settings& settings) {
  return std::make_unique<Host::CompilingParser>(text ? std::move(text) : String::create(), settings);
}

}  // namespace Libraries::DiskSpec
