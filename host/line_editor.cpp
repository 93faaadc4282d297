#include "host/line_editor.h"

#include <algorithm>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <utility>

#include "host/limits.h"

namespace Host {

namespace {

/// Takes the terminal's character encoding from the environment. Where that names none (the locales C and
/// POSIX), it is UTF-8: that is what terminals speak, and file names would otherwise not survive.
void chooseEncoding() {
  const char* const chosen = std::setlocale(LC_CTYPE, "");
  if (chosen == nullptr || std::string_view(chosen) == "C" || std::string_view(chosen) == "POSIX") {
    std::setlocale(LC_CTYPE, "C.UTF-8");
  }
}

}  // namespace

std::unique_ptr<LineEditor> LineEditor::create() {
  chooseEncoding();
  std::unique_ptr<History, Closer> history(history_init());
  std::unique_ptr<EditLine, Closer> editor(el_init("nbdctl", stdin, stdout, stderr));
  if (!history || !editor) {
    return nullptr;
  }
  // NOLINTNEXTLINE(cppcoreguidelines-owning-memory): the constructor is private
  return std::unique_ptr<LineEditor>(new LineEditor(std::move(editor), std::move(history)));
}

LineEditor::LineEditor(std::unique_ptr<EditLine, Closer> editor, std::unique_ptr<History, Closer> history)
    : history_(std::move(history)), editor_(std::move(editor)) {
  EditLine* const el = editor_.get();
  HistEvent event;
  ::history(history_.get(), &event, H_SETSIZE, historyLimit);
  ::history(history_.get(), &event, H_SETUNIQUE, 1);
  el_set(el, EL_CLIENTDATA, this);
  el_set(el, EL_EDITOR, "emacs");
  el_set(el, EL_PROMPT, &LineEditor::drawPrompt);
  el_set(el, EL_HIST, &::history, history_.get());
  // The terminal is put back in order before a signal ends or stops the process, and a new size is noticed.
  el_set(el, EL_SIGNAL, 1);
  bindKeys();
}

void LineEditor::bindKeys() {
  EditLine* const el = editor_.get();
  // While a line is edited Ctrl-C is a key like any other, so that no signal has to be raced with. It goes to
  // the end of the text first, as the new prompt is to stand below all of it.
  el_set(el, EL_SETTY, "-d", "-isig", nullptr);
  el_set(el, EL_ADDFN, "interrupt", "Drop the line", &LineEditor::interrupt);
  el_set(el, EL_BIND, "^X^C", "interrupt", nullptr);
  el_set(el, EL_BIND, "-s", "^C", "^E^X^C", nullptr);
  // With that the other keys that make signals have to be seen to.
  el_set(el, EL_ADDFN, "suspend", "Stop the process", &LineEditor::raiseSignal<SIGTSTP>);
  el_set(el, EL_BIND, "^Z", "suspend", nullptr);
  el_set(el, EL_ADDFN, "quit", "Abort the process", &LineEditor::raiseSignal<SIGQUIT>);
  el_set(el, EL_BIND, "\\034", "quit", nullptr);

  el_set(el, EL_ADDFN, "delete-or-end", "Delete, or end of input", &LineEditor::deleteOrEnd);
  el_set(el, EL_BIND, "^D", "delete-or-end", nullptr);
  el_set(el, EL_BIND, "^R", "em-inc-search-prev", nullptr);
}

bool LineEditor::canDraw(const std::string& text) {
  const auto isControl = [](char byte) { return static_cast<unsigned char>(byte) < ' ' || byte == '\x7f'; };
  return text.size() <= promptLimit && std::ranges::none_of(text, isControl) &&
         std::mbstowcs(nullptr, text.c_str(), 0) != static_cast<std::size_t>(-1);
}

void LineEditor::takeTerminal() { el_set(editor_.get(), EL_PREP_TERM, 1); }

LineEditor::Result LineEditor::read(std::string prompt, const std::string& initial) {
  EditLine* const el = editor_.get();
  prompt_ = std::move(prompt);
  interrupted_ = false;
  if (!initial.empty()) {
    el_push(el, initial.c_str());
  }
  // Left to itself the editor would draw the prompt first, and keys typed at that moment would be echoed
  // twice.
  takeTerminal();
  int length = 0;
  const char* const text = el_gets(el, &length);
  if (interrupted_) {
    return {Ending::interrupted, {}};
  }
  if (text == nullptr || length <= 0) {
    return {Ending::endOfInput, {}};
  }
  std::string line(text, static_cast<std::size_t>(length));
  if (line.ends_with('\n')) {
    line.pop_back();
  }
  if (!line.empty()) {
    HistEvent event;
    ::history(history_.get(), &event, H_ENTER, line.c_str());
  }
  return {Ending::entered, std::move(line)};
}

LineEditor& LineEditor::of(EditLine* editor) {
  LineEditor* self = nullptr;
  el_get(editor, EL_CLIENTDATA, &self);
  return *self;
}

char* LineEditor::drawPrompt(EditLine* editor) { return of(editor).prompt_.data(); }

unsigned char LineEditor::interrupt(EditLine* editor, int /*key*/) {
  of(editor).interrupted_ = true;
  return CC_NEWLINE;
}

template <int Signal>
unsigned char LineEditor::raiseSignal(EditLine* /*editor*/, int /*key*/) {
  std::raise(Signal);
  return CC_REDISPLAY;
}

unsigned char LineEditor::deleteOrEnd(EditLine* editor, int /*key*/) {
  const LineInfo* const line = el_line(editor);
  if (line->lastchar == line->buffer) {
    return CC_EOF;
  }
  if (line->cursor == line->lastchar) {
    return CC_ERROR;
  }
  el_cursor(editor, 1);
  el_deletestr(editor, 1);
  return CC_REFRESH;
}

}  // namespace Host
