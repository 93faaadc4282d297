#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>

namespace Host {

/// Reads lines from a file that is not a terminal. For one thread.
class LineReader {
 public:
  /// Reads from `descriptor`, which stays the caller's and open. `beforeWaiting` is called before every read
  /// that may block; if it returns false, the input is taken to have ended.
  LineReader(int descriptor, std::function<bool()> beforeWaiting);

  /// The next line, without its line feed, of any length and with any bytes in it; what follows the last line
  /// feed is a line if it is not empty. Nothing at the end of the input, and from then on. An input error
  /// ends the input.
  [[nodiscard]] std::optional<std::string> next();

 private:
  [[nodiscard]] bool readMore();

  int descriptor_;
  std::function<bool()> beforeWaiting_;
  /// What was read and not yet returned is `input_` from `position_` on.
  std::string input_;
  std::size_t position_ = 0;
  bool ended_ = false;
};

}  // namespace Host
