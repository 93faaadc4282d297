#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "diskspec/error.h"

namespace DiskSpec {

enum class TokenKind : std::uint8_t {
  word,    ///< a field, a keyword or a value
  quoted,  ///< a value
  equal,   // == or =
  notEqual,
  less,
  lessOrEqual,
  greater,
  greaterOrEqual,
  matches,         // =~
  doesNotMatch,    // !~
  matchesGlob,     // ~
  conjunction,     // &&
  disjunction,     // ||
  negation,        // !
  openingParen,    // (
  closingParen,    // )
  openingBracket,  // [
  closingBracket,  // ]
  comma,
  end,
};

struct Token {
  TokenKind kind = TokenKind::end;
  std::size_t offset = 0;  ///< of its first byte in the text
  std::string text{};      ///< of a word or a quoted value, quotes and escapes taken away
};

/// The tokens of `text`, with one of kind `end` behind them. Linear in the text's length.
Result<std::vector<Token>> tokenize(std::string_view text);

/// `text` in double quotes, so that it reads as one quoted token with this text.
std::string quote(std::string_view text);

}  // namespace DiskSpec
