#pragma once

#include <functional>
#include <string>
#include <vector>

#include "tests/host/screen.h"

namespace Support {

/// How a child process ended.
struct Ended {
  int exitCode = -1;  ///< -1: it was ended by a signal
  int signal = 0;

  friend bool operator==(const Ended&, const Ended&) = default;
};

/// A child process that runs `program` and exits with its result, with pipes for standard input and output.
/// Waiting has a bound everywhere; what takes longer fails the test.
class PipedChild {
 public:
  explicit PipedChild(const std::function<int()>& program);
  ~PipedChild();
  PipedChild(const PipedChild&) = delete;
  PipedChild& operator=(const PipedChild&) = delete;

  /// Gives the child all of `input`, then the end of the input, and returns all that it prints till it ends.
  std::string converse(const std::string& input);

  /// Gives the child `input`, and no end.
  void give(const std::string& input);

  /// Waits until the child has printed `expected` more than was read before, and returns whether it did.
  bool prints(const std::string& expected);

  /// Stops reading, for good.
  void stopReading();

  /// Waits for the child's end. The input stays open, if it is.
  Ended wait();

 private:
  int pid_;
  int input_ = -1;
  int output_ = -1;
};

/// A child process that runs `program` on a terminal of its own, with somebody who types and looks at the
/// screen.
class TerminalChild {
 public:
  explicit TerminalChild(const std::function<int()>& program, unsigned short columns = 80);
  ~TerminalChild();
  TerminalChild(const TerminalChild&) = delete;
  TerminalChild& operator=(const TerminalChild&) = delete;

  void type(const std::string& keys);

  /// Waits until the screen shows exactly these lines, and returns whether it did; says what it shows if not.
  bool shows(const std::vector<std::string>& lines);

  /// The same for the last lines of the screen.
  bool showsAtLast(const std::vector<std::string>& lines);

  /// Hangs up.
  void close();

  Ended wait();

 private:
  bool readSome(int timeoutMilliseconds);

  int pid_ = -1;
  int terminal_ = -1;
  Screen screen_;
};

}  // namespace Support
