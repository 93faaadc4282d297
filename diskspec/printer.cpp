#include "diskspec/printer.h"

#include "diskspec/quantity.h"
#include "diskspec/tokens.h"

namespace DiskSpec {

namespace {

std::string_view spelling(Comparison comparison) {
  switch (comparison) {
    case Comparison::equal:
      return "==";
    case Comparison::notEqual:
      return "!=";
    case Comparison::less:
      return "<";
    case Comparison::lessOrEqual:
      return "<=";
    case Comparison::greater:
      return ">";
    case Comparison::greaterOrEqual:
      return ">=";
    case Comparison::matches:
      return "=~";
    case Comparison::doesNotMatch:
      return "!~";
    case Comparison::matchesGlob:
      return "~";
    case Comparison::in:
      return "in";
    case Comparison::notIn:
      return "not in";
    case Comparison::holds:
      break;
  }
  return {};
}

std::string print(const Value& value, const FieldDescription* field) {
  if (const auto* const pattern = std::get_if<Pattern>(&value)) return quote(pattern->text());
  if (const auto* const text = std::get_if<std::string>(&value)) return quote(*text);
  const std::uint64_t number = std::get<std::uint64_t>(value);
  return field->kind == Kind::state ? std::string(stateWords()[number]) : printQuantity(number, field->kind);
}

std::string print(const Condition& condition) {
  const FieldDescription* const field = describe(condition.field);
  std::string text = field == nullptr ? condition.unknownName : std::string(field->name);
  if (condition.comparison == Comparison::holds) return text;
  text.append(" ").append(spelling(condition.comparison)).append(" ");
  const bool list = condition.comparison == Comparison::in || condition.comparison == Comparison::notIn;
  if (list) text += '[';
  for (bool first = true; const Value& value : condition.values) {
    if (!first) text += ", ";
    first = false;
    text += print(value, field);
  }
  if (list) text += ']';
  return text;
}

/// How tightly a part holds together: one that holds less than what it is in stands in parentheses.
int tightness(Node::Kind kind) {
  return kind == Node::Kind::disjunction ? 0 : kind == Node::Kind::conjunction ? 1 : 2;
}

std::string printWithin(const Node& node, Node::Kind outer) {
  return tightness(node.kind) < tightness(outer) ? '(' + print(node) + ')' : print(node);
}

}  // namespace

std::string print(const Node& node) {
  switch (node.kind) {
    case Node::Kind::never:
      return "false";
    case Node::Kind::always:
      return "true";
    case Node::Kind::condition:
      return print(node.condition);
    case Node::Kind::negation:
      return "not " + printWithin(node.parts.front(), node.kind);
    case Node::Kind::conjunction:
    case Node::Kind::disjunction:
      break;
  }
  std::string text;
  for (const Node& part : node.parts) {
    if (!text.empty()) text += node.kind == Node::Kind::conjunction ? " and " : " or ";
    text += printWithin(part, node.kind);
  }
  return text;
}

}  // namespace DiskSpec
