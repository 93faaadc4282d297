#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "diskspec/error.h"

namespace re2 {
class RE2;
}

namespace DiskSpec {

/// A compiled pattern. Matching takes time linear in the text that is looked at, whatever the pattern, and
/// memory within `Limits::patternMemory`. Immutable; copies share what is compiled, and several threads may
/// match at once.
class Pattern {
 public:
  /// A regular expression of RE2, which matches where it is found anywhere. Errors have the offset 0.
  static Result<Pattern> ofRegularExpression(std::string_view text);

  /// A glob, which matches the whole: "*" stands for any characters, "?" for one, "[a-z]" for one of the list
  /// and "[!a-z]" or "[^a-z]" for one that is not in it; a backslash takes away the meaning of the character
  /// behind it. Errors have the offset 0.
  static Result<Pattern> ofGlob(std::string_view text);

  /// The pattern as it was written.
  const std::string& text() const { return text_; }

  bool matches(std::string_view subject) const;

  friend bool operator==(const Pattern& one, const Pattern& other) { return one.text_ == other.text_; }

 private:
  Pattern(std::string text, std::shared_ptr<const re2::RE2> compiled)
      : text_(std::move(text)), compiled_(std::move(compiled)) {}

  static Result<Pattern> compile(std::string_view text, const std::string& expression, ErrorNumber failure);

  std::string text_;
  std::shared_ptr<const re2::RE2> compiled_;
};

}  // namespace DiskSpec
