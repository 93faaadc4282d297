#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "platform/string.h"

/// The DiskSpec language: expressions that select exports by what they are. Pure computation; nothing here
/// blocks.
namespace Libraries::DiskSpec {

/// A compiled expression. Immutable.
class Expression {
 public:
  virtual ~Expression() = default;

  /// The expression in its canonical spelling; compiling that gives an equal expression.
  [[nodiscard]] virtual Ref<String> text() const = 0;

  /// The form in which an expression travels to other servers.
  [[nodiscard]] virtual std::vector<std::byte> encode() const = 0;

  /// A new expression equal to this one.
  [[nodiscard]] virtual std::unique_ptr<Expression> clone() const = 0;

 protected:
  Expression() = default;
  Expression(const Expression&) = default;
  Expression& operator=(const Expression&) = default;
};

/// The outcome of compiling one text.
class Parser {
 public:
  struct Settings {
    /// Whether words that the language does not know are let through and match nothing, instead of being
    /// errors.
    bool lenient = false;
  };

  /// What is wrong with a text that does not compile.
  struct Failure {
    std::uint8_t number = 0;   ///< which error; 0 means none
    std::uint64_t offset = 0;  ///< the byte of the text at which it was noticed
  };

  virtual ~Parser() = default;
  Parser(const Parser&) = delete;
  Parser& operator=(const Parser&) = delete;

  /// Compiles `text`. Never null: a failure is told by the Parser that comes back.
  [[nodiscard]] static std::unique_ptr<Parser> parse(Ref<String> text, const Settings& settings);

  /// Whether the text compiled.
  [[nodiscard]] virtual bool succeeded() const = 0;

  /// Hands over the compiled expression; null if the text did not compile or the expression was already
  /// taken.
  [[nodiscard]] virtual std::unique_ptr<Expression> takeExpression() = 0;

  /// The text that was compiled.
  [[nodiscard]] virtual Ref<String> text() const = 0;

  /// What was wrong, number 0 if nothing was.
  [[nodiscard]] virtual Failure failure() const = 0;

 protected:
  Parser() = default;
};

}  // namespace Libraries::DiskSpec
