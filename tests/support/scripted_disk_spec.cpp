#include "tests/support/scripted_disk_spec.h"

#include <gtest/gtest.h>

#include <utility>

namespace Support {

namespace {

using Libraries::DiskSpec::Expression;
using Libraries::DiskSpec::Parser;

/// Compiles any text, unless the test has made "Parser::parse" fail; the failure's code is the error number.
class ScriptedParser final : public Parser {
 public:
  ScriptedParser(Platform& platform, Ref<String> text) : platform_(platform), text_(std::move(text)) {
    if (platform_.fails("Parser::parse")) {
      number_ = static_cast<std::uint8_t>(platform_.error());
    } else {
      expression_ = std::make_unique<ScriptedExpression>(platform_, std::string(text_->view()), "expression");
    }
  }
  ScriptedParser(const ScriptedParser&) = delete;
  ScriptedParser& operator=(const ScriptedParser&) = delete;
  ~ScriptedParser() override {
    if (platform_.isTracing()) {
      platform_.record("parser destroyed");
    }
  }

  [[nodiscard]] bool succeeded() const override { return number_ == 0; }
  [[nodiscard]] std::unique_ptr<Expression> takeExpression() override { return std::move(expression_); }
  [[nodiscard]] Ref<String> text() const override { return text_; }
  [[nodiscard]] Failure failure() const override { return {.number = number_, .offset = 0}; }

 private:
  Platform& platform_;
  Ref<String> text_;
  std::unique_ptr<Expression> expression_;
  std::uint8_t number_ = 0;
};

}  // namespace

ScriptedExpression::ScriptedExpression(Platform& platform, std::string text, std::string name)
    : platform_(platform), text_(std::move(text)), name_(std::move(name)) {}

ScriptedExpression::~ScriptedExpression() {
  if (platform_.isTracing()) {
    platform_.record(name_ + " destroyed");
  }
}

Ref<String> ScriptedExpression::text() const { return Support::text(text_); }

std::vector<std::byte> ScriptedExpression::encode() const { return {}; }

std::unique_ptr<Expression> ScriptedExpression::clone() const {
  platform_.record("clone");
  return std::make_unique<ScriptedExpression>(platform_, text_, "clone of the " + name_);
}

}  // namespace Support

namespace Libraries::DiskSpec {

std::unique_ptr<Parser> Parser::parse(Ref<String> text, const Settings& settings) {
  Support::Platform& platform = Support::Platform::current();
  EXPECT_TRUE(text);
  EXPECT_FALSE(settings.lenient);
  platform.record("Parser::parse " + std::string(text->view()));
  return std::make_unique<Support::ScriptedParser>(platform, std::move(text));
}

}  // namespace Libraries::DiskSpec
