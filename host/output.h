#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace Host {

/// The text on its way to the screen, or to whatever standard output is: collected, so that a long listing is
/// a few system calls, and sent when the program is about to wait.
///
/// On a terminal it also settles who moves the cursor. The line editor draws the still-open line (the prompt)
/// itself, and Enter has moved the cursor down by the time the program ends the line; `openLine` and
/// `lineEntered` keep both from happening twice. Elsewhere the bytes are exactly those that were written.
///
/// When nobody can read any more, text is dropped quietly. For one thread.
class Output {
 public:
  /// Sends to `descriptor`, which stays the caller's and open.
  explicit Output(int descriptor) noexcept : descriptor_(descriptor) {}

  /// Adds text, sending what there is when it becomes much.
  void write(std::string_view bytes);

  /// Sends everything; waits until it is sent.
  void flush();

  /// Whether sending has failed, so that nobody will ever see more.
  [[nodiscard]] bool isBroken() const noexcept { return broken_; }

  // ---- On a terminal.

  /// Sends all lines that are complete and returns the one that is not, for the line editor to draw as its
  /// prompt. The cursor stands at the start of a line.
  [[nodiscard]] std::string openLine();

  /// Enter has ended the open line on the terminal: the line end that the program prints next is not sent.
  void lineEntered() noexcept;

  /// Ends the line that stands open on the terminal, without the program's doing, showing `mark` before.
  void breakLine(std::string_view mark);

 private:
  void send(std::string_view bytes);

  int descriptor_;
  bool broken_ = false;
  bool dropLineEnd_ = false;
  std::string waiting_;
  /// The part of the open line that is on the screen already.
  std::string shown_;
};

}  // namespace Host
