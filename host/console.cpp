#include "host/console.h"

#include <unistd.h>

#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "host/line_editor.h"
#include "host/line_reader.h"
#include "host/output.h"
#include "platform/commandline.h"

namespace Host {

namespace {

/// Standard input and output, as the program's console: with the line editor if both are a terminal,
/// otherwise plain.
class Console {
 public:
  static Console& instance() {
    static Console console;
    return console;
  }

  Output& output() { return output_; }

  /// One line. Nobody who can see the answers any more is taken as the end of the input.
  std::optional<std::string> readLine(const std::string& initial) {
    if (output_.isBroken()) {
      return std::nullopt;
    }
    if (isatty(STDIN_FILENO) == 1 && isatty(STDOUT_FILENO) == 1) {
      if (!editor_) {
        editor_ = LineEditor::create();
      }
      if (editor_) {
        return edit(initial);
      }
    }
    return reader_.next();
  }

 private:
  std::optional<std::string> edit(const std::string& initial) {
    std::string prompt = output_.openLine();
    if (!LineEditor::canDraw(prompt)) {
      editor_->takeTerminal();
      output_.write(prompt);
      output_.breakLine({});
      prompt.clear();
    }
    while (true) {
      auto [ending, line] = editor_->read(prompt, initial);
      switch (ending) {
        case LineEditor::Ending::entered:
          output_.lineEntered();
          return std::move(line);
        case LineEditor::Ending::interrupted:
          output_.breakLine("^C");
          break;
        case LineEditor::Ending::endOfInput:
          output_.breakLine({});
          return std::nullopt;
      }
    }
  }

  Output output_{STDOUT_FILENO};
  LineReader reader_{STDIN_FILENO, [this] {
                       output_.flush();
                       return !output_.isBroken();
                     }};
  std::unique_ptr<LineEditor> editor_;
};

/// Prints to the console. Holds nothing itself: all such printers print to the same place.
class ConsolePrinter final : public CharPrinter {
  void write(std::string_view bytes) override { Console::instance().output().write(bytes); }
};

}  // namespace

void flushOutput() { Console::instance().output().flush(); }

}  // namespace Host

namespace Libraries::Commandline {

bool initCommandline(std::uint32_t flags, Ref<Interfaces::Stream> stream, Ref<Terminal> terminal,
                     StreamCallback streamCallback, StringCallback stringCallback, void* /*context*/) {
  // Only the process's own console is there to be used.
  return flags == 0 && !stream && !terminal && streamCallback == nullptr && stringCallback == nullptr;
}

Ref<CharPrinter> outPrinter() { return makeRef<Host::ConsolePrinter>(); }

Ref<TextDisplay> display() { return makeRef<TextDisplay>(); }

Ref<KeyInput> keyInput() { return makeRef<KeyInput>(); }

Ref<String> readLine(Ref<String> initial, Ref<TextDisplay> /*display*/, Ref<KeyInput> /*keyInput*/) {
  const auto line =
      Host::Console::instance().readLine(initial ? std::string(initial->view()) : std::string());
  return line ? String::create(std::string_view(*line)) : nullptr;
}

}  // namespace Libraries::Commandline
