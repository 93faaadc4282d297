#pragma once

#include <cstdint>

#include "platform/string.h"
#include "platform/vector.h"

/// Taking text apart and putting it together.
namespace StringUtil {

/// Splits `text` into words at `separator`.
///
/// - Text between two `quote` characters belongs to one word, separators included; quoted and unquoted
/// stretches
///   that touch are one word. A pair of quotes with nothing between makes an empty word. A quote that is
///   never closed ends at the end of the text.
/// - `escape` takes away the meaning of the character behind it, inside quotes too, and disappears itself. As
/// the
///   very last character it stands for itself.
/// - `maxWords` limits the number of words, and what follows is left out; 0 means no limit.
/// - With `skipEmpty`, separators in a row, at the start and at the end make no empty words; without, every
///   separator ends one word.
///
/// All bytes but the three special characters are kept as they are. The result is never an empty Ref; it has
/// no words if the text has none or is an empty Ref.
[[nodiscard]] Ref<TVector<Ref<String>>> split(const Ref<String>& text, char separator, std::uint64_t maxWords,
                                              bool skipEmpty, char escape, char quote);

/// All words with one `separator` between neighbours; empty Refs count as empty words. Nothing is quoted or
/// escaped.
[[nodiscard]] Ref<String> join(const Ref<TVector<Ref<String>>>& words, char separator);

/// `text` without the blanks, tabs, line feeds, vertical tabs, form feeds and carriage returns at both its
/// ends. An empty Ref gives the empty text.
[[nodiscard]] Ref<String> trim(const Ref<String>& text);

}  // namespace StringUtil
