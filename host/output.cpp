#include "host/output.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>

#include "host/limits.h"

namespace Host {

void Output::write(std::string_view bytes) {
  if (dropLineEnd_ && !bytes.empty()) {
    dropLineEnd_ = false;
    if (bytes.front() == '\n') {
      bytes.remove_prefix(1);
    }
  }
  if (broken_) {
    return;
  }
  waiting_ += bytes;
  if (waiting_.size() >= outputBufferLimit) {
    flush();
  }
}

void Output::flush() {
  send(waiting_);
  if (const auto lineEnd = waiting_.rfind('\n'); lineEnd != std::string::npos) {
    shown_.assign(waiting_, lineEnd + 1);
  } else {
    shown_ += waiting_;
  }
  // Only a prompt's worth is ever of use again.
  if (shown_.size() > promptLimit) {
    shown_.clear();
  }
  waiting_.clear();
}

std::string Output::openLine() {
  const auto lineEnd = waiting_.rfind('\n');
  std::string open = waiting_.substr(lineEnd == std::string::npos ? 0 : lineEnd + 1);
  waiting_.resize(waiting_.size() - open.size());
  flush();
  if (!shown_.empty()) {
    send("\r");
    open.insert(0, shown_);
    shown_.clear();
  }
  return open;
}

void Output::lineEntered() noexcept { dropLineEnd_ = true; }

void Output::breakLine(std::string_view mark) {
  flush();
  send(mark);
  send("\n");
  shown_.clear();
}

void Output::send(std::string_view bytes) {
  while (!bytes.empty() && !broken_) {
    const ssize_t sent = ::write(descriptor_, bytes.data(), bytes.size());
    if (sent >= 0) {
      bytes.remove_prefix(static_cast<std::size_t>(sent));
    } else if (errno == EAGAIN) {
      // Somebody else has made the file non-blocking; a terminal is often shared so.
      pollfd writable{.fd = descriptor_, .events = POLLOUT, .revents = 0};
      broken_ = poll(&writable, 1, -1) == -1 && errno != EINTR;
    } else if (errno != EINTR) {
      broken_ = true;
    }
  }
}

}  // namespace Host
