#include "nbdd/log/log.h"

#include <fcntl.h>
#include <fmt/chrono.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <iterator>
#include <optional>
#include <system_error>

#include "control/utf8.h"
#include "nbdd/limits.h"

namespace Nbdd {

namespace {

std::string_view word(LogLevel level) {
  switch (level) {
    case LogLevel::error:
      return "error";
    case LogLevel::warning:
      return "warning";
    case LogLevel::notice:
      return "notice";
    case LogLevel::info:
      return "info";
  }
  return "info";
}

bool isControl(unsigned char byte) { return byte < 0x20 || byte == 0x7F; }

// C1 control characters are two bytes in UTF-8: C2 80 to C2 9F. Some terminals obey them.
bool isC1(std::string_view text, std::size_t at) {
  return static_cast<unsigned char>(text[at]) == 0xC2 && at + 1 < text.size() &&
         static_cast<unsigned char>(text[at + 1]) < 0xA0;
}

void appendEscape(std::string& out, char byte) {
  fmt::format_to(std::back_inserter(out), "\\x{:02x}", static_cast<unsigned char>(byte));
}

std::string cleaned(std::string_view text, bool doubleBackslashes) {
  std::string out;
  out.reserve(text.size());
  while (!text.empty()) {
    const std::size_t valid = Control::validUtf8Prefix(text);
    for (std::size_t at = 0; at < valid; ++at) {
      const char byte = text[at];
      if (isC1(text, at)) {
        appendEscape(out, byte);
        appendEscape(out, text[++at]);
      } else if (isControl(static_cast<unsigned char>(byte))) {
        appendEscape(out, byte);
      } else if (byte == '\\' && doubleBackslashes) {
        out += "\\\\";
      } else {
        out += byte;
      }
    }
    if (valid < text.size()) appendEscape(out, text[valid]);
    text.remove_prefix(std::min(valid + 1, text.size()));
  }
  return out;
}

/// Writes all of `text`, as far as the descriptor takes it: a log has nobody to complain to.
void writeAll(int descriptor, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(descriptor, text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;
    text.remove_prefix(static_cast<std::size_t>(written));
  }
}

/// Where the service's log goes: standard error, or a file of bounded size. Used under the log's mutex, but
/// for `redirect` and `detach`, which start-up calls before there is a second thread.
class Destination {
 public:
  void line(std::string_view text) {
    if (file_ && length_ + text.size() > Limits::logFileLength) putAside();
    writeAll(file_ ? file_.number() : STDERR_FILENO, text);
    length_ += text.size();
  }

  int redirect(const std::filesystem::path& path) {
    const std::filesystem::path before = std::exchange(path_, path);
    const int failure = open();
    if (failure != 0) path_ = before;
    return failure;
  }

  void detach() {
    detached_ = true;
    const Io::FileDescriptor nothing(::open("/dev/null", O_WRONLY | O_CLOEXEC));
    const int target = file_ ? file_.number() : nothing.number();
    if (target < 0) return;  // no file, no /dev/null: what was inherited stays
    ::dup2(target, STDOUT_FILENO);
    ::dup2(target, STDERR_FILENO);
  }

 private:
  int open() {
    Io::FileDescriptor file(
        ::open(path_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW, 0600));
    struct stat status{};
    if (!file || ::fstat(file.number(), &status) != 0) return errno;
    length_ = static_cast<std::size_t>(status.st_size);
    file_ = std::move(file);
    if (detached_) detach();
    return 0;
  }

  void putAside() {
    std::filesystem::path aside = path_;
    aside += ".1";
    std::error_code failure;
    std::filesystem::rename(path_, aside, failure);
    // Where even that fails, the file goes on, and the attempt is made again one length later.
    if (failure || open() != 0) length_ = 0;
  }

  std::filesystem::path path_;
  Io::FileDescriptor file_;
  std::size_t length_ = 0;
  bool detached_ = false;
};

Destination& destination() {
  static Destination instance;
  return instance;
}

}  // namespace

Log::Log(Form form, Sink sink, std::function<Clock::time_point()> now)
    : form_(form), sink_(std::move(sink)), now_(std::move(now)) {}

void Log::write(LogLevel level, std::string_view kind, std::string_view message) {
  const std::lock_guard lock(mutex_);
  const Clock::time_point now = now_();
  auto found = windows_.find(kind);
  if (found == windows_.end()) found = windows_.emplace(kind, Window{now}).first;
  Window& window = found->second;
  if (now - window.begin >= Limits::logWindow) {
    closeWindow(kind, window);
    window = Window{now};
  }
  if (window.lines >= Limits::logLinesPerKind) {
    ++window.omitted;
    return;
  }
  ++window.lines;
  emit(level, message);
}

void Log::reportOmitted(bool all) {
  const std::lock_guard lock(mutex_);
  const Clock::time_point now = now_();
  for (auto& [kind, window] : windows_) {
    if (all || now - window.begin >= Limits::logWindow) closeWindow(kind, window);
  }
}

void Log::closeWindow(std::string_view kind, Window& window) {
  if (window.omitted == 0) return;
  emit(LogLevel::notice, fmt::format("{} more lines of the kind \"{}\" were left out", window.omitted, kind));
  window.omitted = 0;
}

void Log::emit(LogLevel level, std::string_view message) {
  std::string text = cleaned(message, false);
  if (text.size() > Limits::logLineLength) {
    text.resize(Control::validUtf8Prefix(std::string_view(text).substr(0, Limits::logLineLength)));
    text += "...";
  }
  if (form_ == Form::journal) {
    sink_(fmt::format("<{}>{}\n", static_cast<int>(level), text));
  } else {
    const auto time = std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now());
    sink_(fmt::format("{:%Y-%m-%dT%H:%M:%S}Z {}: {}\n",
                      fmt::gmtime(std::chrono::system_clock::to_time_t(time)), word(level), text));
  }
}

std::string escaped(std::string_view text) { return cleaned(text, true); }

std::string printable(std::string_view text) { return cleaned(text, false); }

bool isJournalStream(int number, std::string_view journalStream) {
  struct stat status{};
  if (::fstat(number, &status) != 0) return false;
  return journalStream == fmt::format("{}:{}", status.st_dev, status.st_ino);
}

Log& serviceLog() {
  static Log instance(
      [] {
        const char* const stream = std::getenv("JOURNAL_STREAM");
        return stream != nullptr && isJournalStream(STDERR_FILENO, stream) ? Log::Form::journal
                                                                           : Log::Form::plain;
      }(),
      [](std::string_view line) { destination().line(line); });
  return instance;
}

int redirectLogTo(const std::filesystem::path& path) { return destination().redirect(path); }

void detachStandardError() { destination().detach(); }

}  // namespace Nbdd
