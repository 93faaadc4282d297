#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "diskspec/error.h"
#include "diskspec/fields.h"
#include "diskspec/pattern.h"

/// The language that selects exports by what they are; docs/diskspec.md gives its grammar.
namespace DiskSpec {

enum class Comparison : std::uint8_t {
  holds,  ///< a field that is a condition by itself
  equal,
  notEqual,
  less,
  lessOrEqual,
  greater,
  greaterOrEqual,
  matches,
  doesNotMatch,
  matchesGlob,
  in,
  notIn,
};

/// What a field is compared with: a number, duration, size or state; a text; or a pattern.
using Value = std::variant<std::uint64_t, std::string, Pattern>;

/// One comparison of a field. Of an unknown field it keeps what was written and compares nothing.
struct Condition {
  Field field = Field::unknown;
  std::string unknownName{};  ///< of an unknown field, in lower case
  Comparison comparison = Comparison::holds;
  std::vector<Value> values{};  ///< none, one, or those of a list

  friend bool operator==(const Condition&, const Condition&) = default;
};

/// A part of an expression: a truth value, a condition, or parts that are connected.
struct Node {
  enum class Kind : std::uint8_t { never, always, condition, negation, conjunction, disjunction };

  Kind kind = Kind::never;
  Condition condition{};      ///< of kind `condition`
  std::vector<Node> parts{};  ///< one of a negation, two or more of a conjunction or disjunction

  friend bool operator==(const Node&, const Node&) = default;
};

/// A checked expression within the limits of limits.h. Immutable; copies share it, and several threads may
/// evaluate it at once.
class Expression {
 public:
  /// Whether the export is selected. A condition on what is not known, an unknown field say, is neither true
  /// nor false, and neither is its negation; only an expression that is true selects. Does not allocate on
  /// its own account; bounded by the expression's limits and the length of the texts in `facts`.
  bool selects(const Facts& facts) const;

  /// The canonical spelling: compiled, it gives an expression equal to this one.
  const std::string& text() const { return content_->text; }

  friend bool operator==(const Expression& one, const Expression& other) {
    return one.content_->root == other.content_->root;
  }

 private:
  struct Content {
    Node root;
    std::string text;
  };

  explicit Expression(std::shared_ptr<const Content> content) : content_(std::move(content)) {}

  friend Result<Expression> compile(std::string_view text, bool lenient);

  std::shared_ptr<const Content> content_;
};

/// Compiles `text`. With `lenient`, fields and states that the language does not know are let through; what
/// is compared with them is never true. Time and memory are bounded by the limits; longer texts are not read.
Result<Expression> compile(std::string_view text, bool lenient = false);

/// The form in which an expression travels to other servers: the octet 1, and the canonical spelling.
std::vector<std::byte> encode(const Expression& expression);

/// Compiles what `encode` made here or elsewhere; nothing of it is trusted. Offsets of errors count from the
/// start of `bytes`.
Result<Expression> decode(std::span<const std::byte> bytes);

}  // namespace DiskSpec
