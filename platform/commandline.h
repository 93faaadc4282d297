#pragma once

#include <cstdint>

#include "platform/char_printer.h"
#include "platform/object.h"
#include "platform/string.h"

namespace Interfaces {

/// A stream of bytes that could take the place of the console. Nothing is asked of one yet.
class Stream : public Object {};

}  // namespace Interfaces

/// The console: one line editor and one printer for the whole process. For use by one thread.
namespace Libraries::Commandline {

/// A terminal that could take the place of the process's own. Nothing is asked of one yet.
class Terminal : public Object {};

/// The screen as the line editor sees it.
class TextDisplay : public Object {};

/// The keyboard as the line editor sees it.
class KeyInput : public Object {};

using StreamCallback = void (*)(Ref<Interfaces::Stream> stream, void* context);
using StringCallback = void (*)(Ref<String> string, void* context);

/// Sets the console up; to be called once, before anything else here. `flags` has no bits defined and is 0;
/// an empty stream and terminal mean the process's own; the callbacks are not called if they are null. False
/// if the console cannot be used.
[[nodiscard]] bool initCommandline(std::uint32_t flags, Ref<Interfaces::Stream> stream,
                                   Ref<Terminal> terminal, StreamCallback streamCallback,
                                   StringCallback stringCallback, void* context);

/// The console's printer. What is printed may wait in a buffer, but has reached the console before `readLine`
/// waits, before a service call waits, and when the process ends.
[[nodiscard]] Ref<CharPrinter> outPrinter();

/// The console's screen, for `readLine`.
[[nodiscard]] Ref<TextDisplay> display();

/// The console's keyboard, for `readLine`.
[[nodiscard]] Ref<KeyInput> keyInput();

/// Waits for one line and returns it without its line end. On a terminal the operator can edit it, beginning
/// with `initial` if that is not an empty Ref. An empty Ref means the end of the input; a last line without a
/// line end counts as a line. Lines may have any length and hold any bytes but the line feed.
[[nodiscard]] Ref<String> readLine(Ref<String> initial, Ref<TextDisplay> display, Ref<KeyInput> keyInput);

}  // namespace Libraries::Commandline
