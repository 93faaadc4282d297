#include "diskspec/tokens.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

namespace DiskSpec {

namespace {

struct Sign {
  std::string_view spelling;
  TokenKind kind;
};

/// Longer ones first, so that "<=" is not taken for "<".
constexpr std::array signs{
    Sign{"==", TokenKind::equal},         Sign{"!=", TokenKind::notEqual},
    Sign{"<=", TokenKind::lessOrEqual},   Sign{">=", TokenKind::greaterOrEqual},
    Sign{"=~", TokenKind::matches},       Sign{"!~", TokenKind::doesNotMatch},
    Sign{"&&", TokenKind::conjunction},   Sign{"||", TokenKind::disjunction},
    Sign{"=", TokenKind::equal},          Sign{"<", TokenKind::less},
    Sign{">", TokenKind::greater},        Sign{"~", TokenKind::matchesGlob},
    Sign{"!", TokenKind::negation},       Sign{"(", TokenKind::openingParen},
    Sign{")", TokenKind::closingParen},   Sign{"[", TokenKind::openingBracket},
    Sign{"]", TokenKind::closingBracket}, Sign{",", TokenKind::comma},
};

constexpr bool isBlank(char character) {
  return character == ' ' || character == '\t' || character == '\n' || character == '\r';
}

constexpr bool isControl(char character) {
  const auto byte = static_cast<unsigned char>(character);
  return byte < 0x20 || byte == 0x7F;
}

constexpr bool isWordCharacter(char character) {
  constexpr std::string_view punctuation = "_-.:/+@%*?$^#{}";
  const auto byte = static_cast<unsigned char>(character);
  return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z') ||
         (character >= '0' && character <= '9') || byte >= 0x80 ||
         punctuation.find(character) != std::string_view::npos;
}

/// How many bytes the character at the start of `text` has in UTF-8 (RFC 3629); 0 if there is none.
std::size_t characterLength(std::string_view text) {
  const auto byte = [text](std::size_t at) {
    return at < text.size() ? static_cast<unsigned char>(text[at]) : 0U;
  };
  const unsigned first = byte(0);
  if (first < 0x80) return 1;
  const std::size_t length = first >= 0xC2 && first < 0xE0   ? 2
                             : first >= 0xE0 && first < 0xF0 ? 3
                             : first >= 0xF0 && first < 0xF5 ? 4
                                                             : 0;
  for (std::size_t at = 1; at < length; ++at) {
    if ((byte(at) & 0xC0U) != 0x80U) return 0;
  }
  const unsigned second = byte(1);
  const bool overlong = (first == 0xE0 && second < 0xA0) || (first == 0xF0 && second < 0x90);
  const bool beyond = (first == 0xED && second >= 0xA0) || (first == 0xF4 && second >= 0x90);
  return overlong || beyond ? 0 : length;
}

/// Where `text` stops being UTF-8; its length if nowhere.
std::size_t validPrefix(std::string_view text) {
  std::size_t at = 0;
  while (at < text.size()) {
    const std::size_t length = characterLength(text.substr(at));
    if (length == 0) break;
    at += length;
  }
  return at;
}

/// Reads the quoted value whose opening quote is at `offset`, and moves `offset` behind it. In double quotes
/// a backslash takes away the meaning of a quote or a backslash behind it, and stands for itself otherwise,
/// so that patterns need no other escapes than their own. In single quotes nothing has a meaning.
Result<Token> readQuoted(std::string_view text, std::size_t& offset) {
  const char mark = text[offset];
  Token token{.kind = TokenKind::quoted, .offset = offset};
  for (std::size_t at = offset + 1; at < text.size(); ++at) {
    char character = text[at];
    if (character == mark) {
      offset = at + 1;
      return token;
    }
    if (isControl(character)) return std::unexpected(Error{ErrorNumber::badCharacter, at});
    const bool escapes = mark == '"' && character == '\\' && at + 1 < text.size() &&
                         (text[at + 1] == '"' || text[at + 1] == '\\');
    if (escapes) character = text[++at];
    token.text += character;
  }
  return std::unexpected(Error{ErrorNumber::stringNotClosed, offset});
}

Result<Token> readToken(std::string_view text, std::size_t& offset) {
  const std::size_t begin = offset;
  if (text[begin] == '"' || text[begin] == '\'') return readQuoted(text, offset);
  const std::string_view rest = text.substr(begin);
  const auto* const wordEnd = std::ranges::find_if_not(rest, isWordCharacter);
  if (wordEnd != rest.begin()) {
    Token token{.kind = TokenKind::word, .offset = begin, .text = std::string(rest.begin(), wordEnd)};
    offset += token.text.size();
    return token;
  }
  const auto* const sign = std::ranges::find_if(
      signs, [rest](const Sign& candidate) { return rest.starts_with(candidate.spelling); });
  if (sign == signs.end()) return std::unexpected(Error{ErrorNumber::badCharacter, begin});
  offset += sign->spelling.size();
  return Token{.kind = sign->kind, .offset = begin};
}

}  // namespace

Result<std::vector<Token>> tokenize(std::string_view text) {
  if (const std::size_t valid = validPrefix(text); valid != text.size()) {
    return std::unexpected(Error{ErrorNumber::notUtf8, valid});
  }
  std::vector<Token> tokens;
  std::size_t offset = 0;
  while (offset < text.size()) {
    if (isBlank(text[offset])) {
      ++offset;
      continue;
    }
    auto token = readToken(text, offset);
    if (!token) return std::unexpected(token.error());
    tokens.push_back(std::move(*token));
  }
  tokens.push_back({.kind = TokenKind::end, .offset = text.size()});
  return tokens;
}

std::string quote(std::string_view text) {
  std::string quoted = "\"";
  for (const char character : text) {
    if (character == '"' || character == '\\') quoted += '\\';
    quoted += character;
  }
  return quoted + '"';
}

}  // namespace DiskSpec
