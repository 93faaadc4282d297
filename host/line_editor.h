#pragma once

#include <histedit.h>

#include <memory>
#include <string>

namespace Host {

/// Reads lines from the terminal on standard input and output with an editor that does what people expect of
/// a shell: emacs keys, UTF-8, and a history of this run. Ctrl-C drops the line; Ctrl-D on an empty line is
/// the end of the input. Between reads the terminal is in its usual mode. For one thread; one per process.
class LineEditor {
 public:
  enum class Ending {
    entered,      ///< with Enter: the cursor is at the start of the next line
    interrupted,  ///< with Ctrl-C: the cursor is behind the dropped text
    endOfInput,   ///< with Ctrl-D, or because the terminal is gone: the cursor is behind the prompt
  };

  struct Result {
    Ending ending;
    std::string line;  ///< without a line end; only if it was entered
  };

  /// The editor; null if the terminal cannot be used for one.
  [[nodiscard]] static std::unique_ptr<LineEditor> create();

  LineEditor(const LineEditor&) = delete;
  LineEditor& operator=(const LineEditor&) = delete;

  /// Whether `text` can be drawn as a prompt: short, printable, and valid in the terminal's character
  /// encoding.
  [[nodiscard]] static bool canDraw(const std::string& text);

  /// Has the terminal leave the keys to the editor, as `read` does before it draws the prompt: from then on
  /// they are not echoed when they are typed. To be followed by `read`.
  void takeTerminal();

  /// Draws `prompt`, which must be one that can be drawn, from where the cursor is, and reads one line that
  /// starts out as `initial`.
  [[nodiscard]] Result read(std::string prompt, const std::string& initial);

 private:
  struct Closer {
    void operator()(EditLine* editor) const noexcept { el_end(editor); }
    void operator()(History* history) const noexcept { history_end(history); }
  };

  LineEditor(std::unique_ptr<EditLine, Closer> editor, std::unique_ptr<History, Closer> history);

  void bindKeys();
  static LineEditor& of(EditLine* editor);
  static char* drawPrompt(EditLine* editor);
  static unsigned char interrupt(EditLine* editor, int key);
  template <int Signal>
  static unsigned char raiseSignal(EditLine* editor, int key);
  static unsigned char deleteOrEnd(EditLine* editor, int key);

  // The editor uses the history, so it goes first.
  std::unique_ptr<History, Closer> history_;
  std::unique_ptr<EditLine, Closer> editor_;
  std::string prompt_;
  bool interrupted_ = false;
};

}  // namespace Host
