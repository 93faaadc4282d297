#pragma once

#include <cstddef>

namespace Host {

/// How much text may wait before it is sent: as much as a pipe takes at once.
inline constexpr std::size_t outputBufferLimit = 64UL * 1024;

/// How much of the input is asked for at once, for the same reason. Lines may be longer.
inline constexpr std::size_t inputChunkSize = 64UL * 1024;

/// The longest open line that the line editor is asked to draw, in bytes. Prompts are a few characters; a
/// line beyond this is an answer that was left open, and is shown as it is.
inline constexpr std::size_t promptLimit = 1024;

/// How many lines the history keeps within one run: more than anybody steps back through.
inline constexpr int historyLimit = 1000;

}  // namespace Host
