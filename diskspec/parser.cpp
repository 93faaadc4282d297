// By recursive descent, one function for each rule of the grammar, which docs/diskspec.md gives. The depth is
// counted, so however the text nests, the functions call each other a bounded number of times.

#include "diskspec/parser.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <optional>
#include <utility>

#include "diskspec/letters.h"
#include "diskspec/limits.h"
#include "diskspec/quantity.h"
#include "diskspec/tokens.h"

namespace DiskSpec {

namespace {

struct Operator {
  std::string_view word;  ///< the spelling by a word, empty if there is none
  TokenKind sign;
  Comparison comparison;
};

constexpr std::array operators{
    Operator{"eq", TokenKind::equal, Comparison::equal},
    Operator{"ne", TokenKind::notEqual, Comparison::notEqual},
    Operator{"lt", TokenKind::less, Comparison::less},
    Operator{"le", TokenKind::lessOrEqual, Comparison::lessOrEqual},
    Operator{"gt", TokenKind::greater, Comparison::greater},
    Operator{"ge", TokenKind::greaterOrEqual, Comparison::greaterOrEqual},
    Operator{"", TokenKind::matches, Comparison::matches},
    Operator{"", TokenKind::doesNotMatch, Comparison::doesNotMatch},
    Operator{"", TokenKind::matchesGlob, Comparison::matchesGlob},
};

bool isList(Comparison comparison) { return comparison == Comparison::in || comparison == Comparison::notIn; }

bool isEquality(Comparison comparison) {
  return comparison == Comparison::equal || comparison == Comparison::notEqual;
}

bool isPattern(Comparison comparison) {
  return comparison == Comparison::matches || comparison == Comparison::doesNotMatch ||
         comparison == Comparison::matchesGlob;
}

bool fits(Comparison comparison, Kind kind) {
  switch (kind) {
    case Kind::text:
    case Kind::uuid:
      return true;
    case Kind::size:
    case Kind::number:
    case Kind::duration:
      return !isPattern(comparison);
    case Kind::state:
      return isEquality(comparison) || isList(comparison);
    case Kind::truth:
      return isEquality(comparison);
  }
  return false;
}

bool isKeyword(const Token& token, std::string_view keyword) {
  return token.kind == TokenKind::word && sameLetters(token.text, keyword);
}

class Parser {
 public:
  Parser(std::vector<Token> tokens, bool lenient) : tokens_(std::move(tokens)), lenient_(lenient) {}

  Result<Node> parseAll() {
    if (next().kind == TokenKind::end) return fail(ErrorNumber::empty);
    auto node = parseDisjunction();
    if (node && next().kind != TokenKind::end) return fail(ErrorNumber::endExpected);
    return node;
  }

 private:
  const Token& next() const { return tokens_[position_]; }

  /// The next token, which is left behind; the last one stays.
  const Token& take() { return tokens_[position_ + 1 < tokens_.size() ? position_++ : position_]; }

  bool takeIf(TokenKind kind) {
    if (next().kind != kind) return false;
    take();
    return true;
  }

  bool takeIf(TokenKind sign, std::string_view keyword) {
    if (next().kind != sign && !isKeyword(next(), keyword)) return false;
    take();
    return true;
  }

  std::unexpected<Error> fail(ErrorNumber number) const { return fail(number, next()); }
  static std::unexpected<Error> fail(ErrorNumber number, const Token& at) {
    return std::unexpected(Error{number, at.offset});
  }

  /// Counts one more node that is being made.
  bool countNode() { return ++nodes_ <= Limits::nodes; }

  Result<Node> parseDisjunction() {
    return parseConnected(Node::Kind::disjunction, TokenKind::disjunction, "or", &Parser::parseConjunction);
  }

  Result<Node> parseConjunction() {
    return parseConnected(Node::Kind::conjunction, TokenKind::conjunction, "and", &Parser::parseNegation);
  }

  /// Parts with `sign` or `keyword` between them; a single one stands for itself. A part of the same kind, in
  /// parentheses then, is taken apart: what is connected twice the same way is connected once.
  Result<Node> parseConnected(Node::Kind kind, TokenKind sign, std::string_view keyword,
                              Result<Node> (Parser::*parsePart)()) {
    auto first = (this->*parsePart)();
    if (!first || (next().kind != sign && !isKeyword(next(), keyword))) return first;
    if (!countNode()) return fail(ErrorNumber::tooManyConditions);
    Node node{.kind = kind};
    append(node, std::move(*first));
    while (takeIf(sign, keyword)) {
      auto part = (this->*parsePart)();
      if (!part) return part;
      append(node, std::move(*part));
    }
    return node;
  }

  static void append(Node& node, Node part) {
    if (part.kind != node.kind) {
      node.parts.push_back(std::move(part));
      return;
    }
    std::ranges::move(part.parts, std::back_inserter(node.parts));
  }

  Result<Node> parseNegation() {
    const Token& at = next();
    if (!takeIf(TokenKind::negation, "not")) return parsePrimary();
    if (depth_ == Limits::depth) return fail(ErrorNumber::tooDeep, at);
    if (!countNode()) return fail(ErrorNumber::tooManyConditions, at);
    ++depth_;
    auto negated = parseNegation();
    --depth_;
    return negated ? Result<Node>(negation(std::move(*negated))) : negated;
  }

  static Node negation(Node node) {
    Node result{.kind = Node::Kind::negation};
    result.parts.push_back(std::move(node));
    return result;
  }

  Result<Node> parsePrimary() {
    if (next().kind == TokenKind::openingParen) return parseParentheses();
    if (next().kind != TokenKind::word) return fail(ErrorNumber::conditionExpected);
    if (!countNode()) return fail(ErrorNumber::tooManyConditions);
    const bool always = isKeyword(next(), "true");
    if (!always && !isKeyword(next(), "false")) return parseCondition();
    take();
    return Node{.kind = always ? Node::Kind::always : Node::Kind::never};
  }

  Result<Node> parseParentheses() {
    if (depth_ == Limits::depth) return fail(ErrorNumber::tooDeep);
    take();
    ++depth_;
    auto inner = parseDisjunction();
    --depth_;
    if (inner && !takeIf(TokenKind::closingParen)) return fail(ErrorNumber::parenthesisNotClosed);
    return inner;
  }

  Result<Node> parseCondition() {
    const Token& name = take();
    const FieldDescription* const field = findField(name.text);
    if (field == nullptr && !lenient_) return fail(ErrorNumber::unknownField, name);
    const Token& at = next();
    const std::optional<Comparison> comparison = takeComparison();
    Condition condition{.field = field == nullptr ? Field::unknown : field->field,
                        .comparison = comparison.value_or(Comparison::holds)};
    if (!comparison) {
      const bool alone = field == nullptr || field->kind == Kind::truth;
      if (field == nullptr) condition.unknownName = lowered(name.text);
      return alone ? Result<Node>(conditionNode(std::move(condition)))
                   : fail(ErrorNumber::operatorExpected, at);
    }
    if (field != nullptr && !fits(*comparison, field->kind))
      return fail(ErrorNumber::operatorNotForField, at);
    if (field != nullptr && field->kind == Kind::truth) return parseTruthValue(std::move(condition));
    return parseValues(std::move(condition), field, name);
  }

  static Node conditionNode(Condition condition) {
    Node node{.kind = Node::Kind::condition};
    node.condition = std::move(condition);
    return node;
  }

  std::optional<Comparison> takeComparison() {
    if (isKeyword(next(), "in")) {
      take();
      return Comparison::in;
    }
    if (isKeyword(next(), "not") && isKeyword(tokens_[position_ + 1], "in")) {
      position_ += 2;
      return Comparison::notIn;
    }
    for (const Operator& row : operators) {
      const bool spelled = row.word.empty() ? takeIf(row.sign) : takeIf(row.sign, row.word);
      if (spelled) return row.comparison;
    }
    return std::nullopt;
  }

  /// `readonly == true` is `readonly`, and `readonly == false` is `not readonly`.
  Result<Node> parseTruthValue(Condition condition) {
    const Token& value = next();
    const bool negates = (condition.comparison == Comparison::notEqual) != isKeyword(value, "false");
    if (value.kind != TokenKind::word) return fail(ErrorNumber::valueExpected);
    if (!isKeyword(value, "true") && !isKeyword(value, "false")) return fail(ErrorNumber::badTruthValue);
    condition.comparison = Comparison::holds;
    Node node = conditionNode(std::move(condition));
    if (negates) {
      if (depth_ == Limits::depth) return fail(ErrorNumber::tooDeep);
      if (!countNode()) return fail(ErrorNumber::tooManyConditions);
      node = negation(std::move(node));
    }
    take();
    return node;
  }

  Result<Node> parseValues(Condition condition, const FieldDescription* field, const Token& name) {
    const bool list = isList(condition.comparison);
    if (list && !takeIf(TokenKind::openingBracket)) return fail(ErrorNumber::listExpected);
    std::vector<Value> written;
    bool known = field != nullptr;
    do {
      if (written.size() == Limits::listLength) return fail(ErrorNumber::listTooLong);
      const Token& at = next();
      if (at.kind != TokenKind::word && at.kind != TokenKind::quoted) return fail(ErrorNumber::valueExpected);
      written.emplace_back(at.text);
      if (known) {
        auto value = readValue(at.text, condition.comparison, field->kind);
        known = value.has_value();
        const bool letThrough = lenient_ && !known && value.error().number == ErrorNumber::badState;
        if (!known && !letThrough) return fail(value.error().number, at);
        if (known) condition.values.push_back(std::move(*value));
      }
      take();
    } while (list && takeIf(TokenKind::comma));
    if (list && !takeIf(TokenKind::closingBracket)) return fail(ErrorNumber::listExpected);
    if (!known) {
      condition.field = Field::unknown;
      condition.unknownName = lowered(name.text);
      condition.values = std::move(written);
    }
    return conditionNode(std::move(condition));
  }

  Result<Value> readValue(std::string_view text, Comparison comparison, Kind kind) {
    if (isPattern(comparison)) return readPattern(text, comparison, kind);
    if (kind == Kind::text) return std::string(text);
    if (kind == Kind::uuid) return lowered(text);
    if (kind != Kind::state) return readQuantity(text, kind);
    const auto words = stateWords();
    const auto word =
        std::ranges::find_if(words, [text](std::string_view state) { return sameLetters(state, text); });
    if (word == words.end()) return std::unexpected(Error{ErrorNumber::badState});
    return static_cast<std::uint64_t>(word - words.begin());
  }

  Result<Value> readPattern(std::string_view text, Comparison comparison, Kind kind) {
    if (++patterns_ > Limits::patterns) return std::unexpected(Error{ErrorNumber::tooManyPatterns});
    const bool glob = comparison == Comparison::matchesGlob;
    const std::string written = glob && kind == Kind::uuid ? lowered(text) : std::string(text);
    return glob ? Pattern::ofGlob(written) : Pattern::ofRegularExpression(written);
  }

  std::vector<Token> tokens_;
  bool lenient_;
  std::size_t position_ = 0;
  std::size_t depth_ = 0;
  std::size_t nodes_ = 0;
  std::size_t patterns_ = 0;
};

}  // namespace

Result<Node> parse(std::string_view text, bool lenient) {
  if (text.size() > Limits::textLength)
    return std::unexpected(Error{ErrorNumber::textTooLong, Limits::textLength});
  auto tokens = tokenize(text);
  if (!tokens) return std::unexpected(tokens.error());
  return Parser(std::move(*tokens), lenient).parseAll();
}

}  // namespace DiskSpec
