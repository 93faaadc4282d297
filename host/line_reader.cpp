#include "host/line_reader.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "host/limits.h"

namespace Host {

LineReader::LineReader(int descriptor, std::function<bool()> beforeWaiting)
    : descriptor_(descriptor), beforeWaiting_(std::move(beforeWaiting)) {}

std::optional<std::string> LineReader::next() {
  std::size_t searched = position_;
  while (true) {
    const std::size_t lineEnd = input_.find('\n', searched);
    if (lineEnd != std::string::npos) {
      std::string line = input_.substr(position_, lineEnd - position_);
      position_ = lineEnd + 1;
      return line;
    }
    // What has been searched need not be searched again, however long the line becomes.
    searched = input_.size() - position_;
    input_.erase(0, std::exchange(position_, 0));
    if (!readMore()) {
      break;
    }
  }
  if (input_.empty()) {
    return std::nullopt;
  }
  return std::exchange(input_, {});
}

/// Appends a piece of the input to `input_`; false at its end.
bool LineReader::readMore() {
  if (ended_ || !beforeWaiting_()) {
    return false;
  }
  const std::size_t had = input_.size();
  input_.resize(had + inputChunkSize);
  ssize_t got = 0;
  while ((got = ::read(descriptor_, input_.data() + had, inputChunkSize)) == -1) {
    if (errno == EAGAIN) {
      pollfd readable{.fd = descriptor_, .events = POLLIN, .revents = 0};
      poll(&readable, 1, -1);
    } else if (errno != EINTR) {
      break;
    }
  }
  input_.resize(had + static_cast<std::size_t>(got > 0 ? got : 0));
  ended_ = got <= 0;
  return !ended_;
}

}  // namespace Host
