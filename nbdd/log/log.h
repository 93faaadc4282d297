#pragma once

#include <fmt/core.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>

#include "nbdd/io/file_descriptor.h"

namespace Nbdd {

/// Severity with the numbers of syslog(3), which the journal understands too.
enum class LogLevel { error = 3, warning = 4, notice = 5, info = 6 };

/// Writes one line per event, and never a flood: of each kind of event only so many lines leave within a
/// window of time; the rest is counted, and the next line that leaves says how many there were.
///
/// Lines never hold control characters or broken UTF-8, whatever text of other people's went into them.
/// Any thread may write.
class Log {
 public:
  using Clock = std::chrono::steady_clock;
  using Sink = std::move_only_function<void(std::string_view line)>;

  /// How a line begins: "<4>" for the journal, which adds the time itself; else a UTC time stamp and a word.
  enum class Form { journal, plain };

  /// `sink` takes each whole line, its line end included. `now` is the clock of the windows.
  Log(Form form, Sink sink, std::function<Clock::time_point()> now = Clock::now);

  /// `kind` names the event in the source ("client-refused"): lines of one kind share a window.
  void write(LogLevel level, std::string_view kind, std::string_view message);

  /// Says now what was left out of windows that are over, or of all of them at the service's end.
  void reportOmitted(bool all);

 private:
  struct Window {
    Clock::time_point begin;
    std::uint64_t lines = 0;
    std::uint64_t omitted = 0;
  };

  void closeWindow(std::string_view kind, Window& window);
  void emit(LogLevel level, std::string_view message);

  const Form form_;
  Sink sink_;
  const std::function<Clock::time_point()> now_;
  std::mutex mutex_;                                    // guards what follows, and the sink
  std::map<std::string, Window, std::less<>> windows_;  // by kind: as many as the source has kinds
};

/// `text` with control characters, broken UTF-8 and backslashes as \xNN and \\: fit for a line of a log or a
/// terminal, and unambiguous.
std::string escaped(std::string_view text);

/// The same with backslashes as they are: for text in which its author has escaped what needs it.
std::string printable(std::string_view text);

/// The service's log: standard error, in the journal's form when that is where standard error leads.
Log& serviceLog();

/// A line of the service's log. Texts of other people's belong in `escaped`.
template <class... Arguments>
void log(LogLevel level, std::string_view kind, fmt::format_string<Arguments...> format,
         Arguments&&... arguments) {
  serviceLog().write(level, kind, fmt::format(format, std::forward<Arguments>(arguments)...));
}

/// Whether the descriptor `number` is the journal's stream that `journalStream` (the environment's
/// JOURNAL_STREAM, "device:inode") tells of.
bool isJournalStream(int number, std::string_view journalStream);

/// From now on the log goes to the file `path`, which is put aside as `path`.1 whenever it has grown too
/// long. Standard error stays what it was. Returns 0 or an errno; after a failure everything is as it was.
int redirectLogTo(const std::filesystem::path& path);

/// Lets go of standard output and error: what libraries still write there joins the log file, if there is
/// one.
void detachStandardError();

}  // namespace Nbdd
