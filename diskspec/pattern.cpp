#include "diskspec/pattern.h"

#include <re2/re2.h>

#include <optional>
#include <utility>

#include "diskspec/limits.h"

namespace DiskSpec {

namespace {

re2::StringPiece piece(std::string_view text) { return {text.data(), text.size()}; }

/// One byte of text as a part of a regular expression that matches it and nothing else.
void appendLiteral(std::string& expression, char character) {
  constexpr std::string_view special = R"(\.+*?()|[]{}^$-&~#)";
  if (special.find(character) != std::string_view::npos) expression += '\\';
  expression += character;
}

/// Puts the bracket of a glob that opens at `at` into regular terms and moves `at` to its closing bracket.
/// False if it is not closed or empty. A closing bracket right behind the opening one is a member.
bool appendBracket(std::string& expression, std::string_view glob, std::size_t& at) {
  std::size_t next = at + 1;
  expression += '[';
  if (next < glob.size() && (glob[next] == '!' || glob[next] == '^')) {
    expression += '^';
    ++next;
  }
  for (const std::size_t first = next; next < glob.size(); ++next) {
    const char character = glob[next];
    if (character == ']' && next > first) {
      expression += ']';
      at = next;
      return true;
    }
    const bool range = character == '-' && next > first && next + 1 < glob.size() && glob[next + 1] != ']';
    if (range) {
      expression += '-';
    } else if (character == '\\' && next + 1 < glob.size()) {
      appendLiteral(expression, glob[++next]);
    } else {
      appendLiteral(expression, character);
    }
  }
  return false;
}

/// The regular expression that matches what `glob` does; none if the glob is malformed.
std::optional<std::string> regularExpressionOf(std::string_view glob) {
  std::string expression = R"((?s)\A)";
  for (std::size_t at = 0; at < glob.size(); ++at) {
    switch (glob[at]) {
      case '*':
        expression += ".*";
        break;
      case '?':
        expression += '.';
        break;
      case '[':
        if (!appendBracket(expression, glob, at)) return std::nullopt;
        break;
      case '\\':
        if (at + 1 < glob.size()) ++at;
        [[fallthrough]];
      default:
        appendLiteral(expression, glob[at]);
    }
  }
  return expression + R"(\z)";
}

bool needsTooMuch(re2::RE2::ErrorCode code) {
  return code == re2::RE2::ErrorPatternTooLarge || code == re2::RE2::ErrorRepeatSize;
}

}  // namespace

Result<Pattern> Pattern::compile(std::string_view text, const std::string& expression, ErrorNumber failure) {
  re2::RE2::Options options;
  options.set_log_errors(false);
  options.set_never_capture(true);
  options.set_max_mem(Limits::patternMemory);
  auto compiled = std::make_shared<const re2::RE2>(expression, options);
  if (!compiled->ok()) {
    return std::unexpected(
        Error{needsTooMuch(compiled->error_code()) ? ErrorNumber::patternTooLarge : failure, 0});
  }
  return Pattern(std::string(text), std::move(compiled));
}

Result<Pattern> Pattern::ofRegularExpression(std::string_view text) {
  if (text.size() > Limits::patternLength) return std::unexpected(Error{ErrorNumber::patternTooLarge, 0});
  return compile(text, std::string(text), ErrorNumber::badPattern);
}

Result<Pattern> Pattern::ofGlob(std::string_view text) {
  if (text.size() > Limits::patternLength) return std::unexpected(Error{ErrorNumber::patternTooLarge, 0});
  const auto expression = regularExpressionOf(text);
  if (!expression) return std::unexpected(Error{ErrorNumber::badGlob, 0});
  return compile(text, *expression, ErrorNumber::badGlob);
}

bool Pattern::matches(std::string_view subject) const {
  return re2::RE2::PartialMatch(piece(subject), *compiled_);
}

}  // namespace DiskSpec
