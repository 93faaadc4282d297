#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "platform/disk_spec.h"
#include "tests/support/scripted_platform.h"

namespace Support {

/// An expression that stands for any text: nothing of the language is known here. Writes its clones into the
/// platform's journal and, if the platform traces the tear-down, when it is destroyed.
class ScriptedExpression final : public Libraries::DiskSpec::Expression {
 public:
  ScriptedExpression(Platform& platform, std::string text, std::string name);
  ScriptedExpression(const ScriptedExpression&) = delete;
  ScriptedExpression& operator=(const ScriptedExpression&) = delete;
  ~ScriptedExpression() override;

  [[nodiscard]] Ref<String> text() const override;
  [[nodiscard]] std::vector<std::byte> encode() const override;
  [[nodiscard]] std::unique_ptr<Expression> clone() const override;

  /// Does with the expression what one may who was given it: whoever uses it afterwards sees that.
  void spoil() { text_ = "spoiled"; }

 private:
  Platform& platform_;
  std::string text_;
  std::string name_;
};

}  // namespace Support
