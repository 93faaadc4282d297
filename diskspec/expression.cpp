#include "diskspec/expression.h"

#include <algorithm>
#include <compare>
#include <optional>
#include <utility>

#include "diskspec/limits.h"
#include "diskspec/parser.h"
#include "diskspec/printer.h"

namespace DiskSpec {

namespace {

constexpr std::byte encodingVersion{1};

/// Ordered so that a conjunction is the least of its parts, and a disjunction the greatest.
enum class Truth : std::int8_t { no = -1, unknown = 0, yes = 1 };

Truth truthOf(bool value) { return value ? Truth::yes : Truth::no; }

Truth negated(Truth truth) { return static_cast<Truth>(-static_cast<int>(truth)); }

bool orders(Comparison comparison, std::strong_ordering order) {
  switch (comparison) {
    case Comparison::equal:
      return order == 0;
    case Comparison::notEqual:
      return order != 0;
    case Comparison::less:
      return order < 0;
    case Comparison::lessOrEqual:
      return order <= 0;
    case Comparison::greater:
      return order > 0;
    case Comparison::greaterOrEqual:
      return order >= 0;
    default:
      return false;
  }
}

template <class Held, class Given>
bool compare(const Condition& condition, Given given) {
  const auto equals = [given](const Value& value) { return given == std::get<Held>(value); };
  switch (condition.comparison) {
    case Comparison::in:
      return std::ranges::any_of(condition.values, equals);
    case Comparison::notIn:
      return std::ranges::none_of(condition.values, equals);
    default:
      return orders(condition.comparison, given <=> Given(std::get<Held>(condition.values.front())));
  }
}

bool compareText(const Condition& condition, std::string_view given) {
  if (const auto* const pattern = std::get_if<Pattern>(&condition.values.front())) {
    return pattern->matches(given) == (condition.comparison != Comparison::doesNotMatch);
  }
  return compare<std::string>(condition, given);
}

Truth compareNumber(const Condition& condition, std::optional<std::uint64_t> given) {
  return given ? truthOf(compare<std::uint64_t>(condition, *given)) : Truth::unknown;
}

Truth evaluate(const Condition& condition, const Facts& facts) {
  switch (condition.field) {
    case Field::name:
      return truthOf(compareText(condition, facts.name));
    case Field::uuid:
      return truthOf(compareText(condition, facts.uuid));
    case Field::size:
      return compareNumber(condition, facts.size);
    case Field::readonly:
      return truthOf(facts.readonly);
    case Field::clients:
      return compareNumber(condition, facts.clients);
    case Field::blocksize:
      return compareNumber(condition, facts.blocksize);
    case Field::state:
      return compareNumber(condition, facts.state);
    case Field::compressed:
      return truthOf(facts.compressed);
    case Field::age:
      return compareNumber(condition, facts.age);
    case Field::id:
      return compareNumber(condition, facts.id);
    case Field::bytesread:
      return compareNumber(condition, facts.bytesread);
    case Field::byteswritten:
      return compareNumber(condition, facts.byteswritten);
    case Field::unknown:
      break;
  }
  return Truth::unknown;
}

Truth evaluate(const Node& node, const Facts& facts) {
  switch (node.kind) {
    case Node::Kind::never:
      return Truth::no;
    case Node::Kind::always:
      return Truth::yes;
    case Node::Kind::condition:
      return evaluate(node.condition, facts);
    case Node::Kind::negation:
      return negated(evaluate(node.parts.front(), facts));
    case Node::Kind::conjunction:
    case Node::Kind::disjunction:
      break;
  }
  const bool all = node.kind == Node::Kind::conjunction;
  const Truth decided = all ? Truth::no : Truth::yes;
  Truth result = negated(decided);
  for (const Node& part : node.parts) {
    const Truth truth = evaluate(part, facts);
    if (truth == decided) return decided;
    if (truth == Truth::unknown) result = Truth::unknown;
  }
  return result;
}

}  // namespace

bool Expression::selects(const Facts& facts) const { return evaluate(content_->root, facts) == Truth::yes; }

Result<Expression> compile(std::string_view text, bool lenient) {
  auto root = parse(text, lenient);
  if (!root) return std::unexpected(root.error());
  std::string canonical = print(*root);
  if (canonical.size() > Limits::textLength) return std::unexpected(Error{ErrorNumber::textTooLong, 0});
  return Expression(std::make_shared<const Expression::Content>(
      Expression::Content{.root = std::move(*root), .text = std::move(canonical)}));
}

std::vector<std::byte> encode(const Expression& expression) {
  std::vector<std::byte> bytes{encodingVersion};
  bytes.reserve(1 + expression.text().size());
  for (const char character : expression.text()) bytes.push_back(static_cast<std::byte>(character));
  return bytes;
}

Result<Expression> decode(std::span<const std::byte> bytes) {
  if (bytes.empty() || bytes.front() != encodingVersion) {
    return std::unexpected(Error{ErrorNumber::unknownEncoding, 0});
  }
  if (bytes.size() - 1 > Limits::textLength) return std::unexpected(Error{ErrorNumber::textTooLong, 0});
  std::string text;
  for (const std::byte octet : bytes.subspan(1)) text += static_cast<char>(octet);
  auto expression = compile(text);
  if (!expression) expression.error().offset += 1;
  return expression;
}

}  // namespace DiskSpec
