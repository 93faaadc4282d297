#pragma once

#include <cstdint>
#include <optional>

#include "platform/string.h"

/// What the handlers of commands have in common: how they read words, refuse them, and end a progress line.
namespace Shell {

/// The number that `word` spells. If it spells none, says so in a line, `complaint` and the word, and returns
/// nothing.
[[nodiscard]] std::optional<std::uint64_t> readNumber(const Ref<String>& word, const char* complaint);

/// Says in a line what is wrong with the words, and returns `failed`.
int refuseWords(const char* complaint);

/// The same without the end of the line: what is printed next continues it.
int refuseWordsInOpenLine(const char* complaint);

/// Ends the progress line of a command whose call has succeeded or not, and returns the command's result. To
/// be called right after the call.
int endProgress(bool success);

}  // namespace Shell
