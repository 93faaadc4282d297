#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "control/client.h"

namespace Testing {

/// A directory of its own for one test, gone with everything in it at the end.
class TemporaryDirectory {
 public:
  TemporaryDirectory();
  ~TemporaryDirectory();
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  const std::filesystem::path& path() const { return path_; }
  /// Makes a file here and returns its path.
  std::filesystem::path write(const std::string& name, const std::string& content) const;
  /// Makes a file of `size` bytes that is one hole.
  std::filesystem::path sparse(const std::string& name, std::uintmax_t size) const;

 private:
  std::filesystem::path path_;
};

/// The whole content of a file; empty if there is none.
std::string readText(const std::filesystem::path& file);

/// How a process ended.
struct Ending {
  std::optional<int> exitCode;
  std::optional<int> signal;
};

/// A real nbdd with directories of its own and, unless configured otherwise, any free port of the loopback
/// addresses. Ended by its process ID, at the latest with this object. Throws std::runtime_error when it
/// cannot be brought up.
class ServiceProcess {
 public:
  ServiceProcess();
  ~ServiceProcess();
  ServiceProcess(const ServiceProcess&) = delete;
  ServiceProcess& operator=(const ServiceProcess&) = delete;

  /// Before `start`: what the configuration file holds, further words of the command line, and variables of
  /// the environment (an empty value takes one away).
  void configure(const std::string& toml);
  void addArgument(const std::string& word) { arguments_.push_back(word); }
  void setVariable(const std::string& name, const std::string& value) { variables_[name] = value; }

  /// Before `start`: passes this listening socket as systemd does. It stays the caller's.
  void passSocket(int number) { passedSocket_ = number; }

  /// Starts nbdd and waits until it says that it is ready.
  void start();
  /// Starts nbdd and waits until it ends: for what is not meant to run.
  Ending runToEnd();
  /// Ends it as `kill -9` does, and waits for the end.
  void kill9();
  /// Ends it with SIGTERM and waits for the end.
  Ending stop();
  /// As `kill9` or `stop`, whichever came, and `start`.
  void restart();
  void signal(int number) const;
  /// Waits until it ends by itself; nothing if that takes longer.
  std::optional<Ending> awaitEnd(std::chrono::milliseconds time);

  pid_t process() const { return process_; }
  bool running() const { return process_ > 0; }

  const std::filesystem::path& directory() const { return directory_.path(); }
  const TemporaryDirectory& files() const { return directory_; }
  std::filesystem::path controlSocket() const;
  std::filesystem::path stateFile() const;
  /// All that nbdd has written to standard error, over all starts.
  std::string log() const;
  std::string output() const;

  /// A connection to the control socket.
  Control::Client connect() const;
  /// The port on which the started server listens; 0 when it does not.
  std::uint16_t port() const;

 private:
  pid_t launch(int readyDescriptor) const;

  TemporaryDirectory directory_;
  std::vector<std::string> arguments_;
  std::map<std::string, std::string> variables_;
  int passedSocket_ = -1;
  pid_t process_ = -1;
};

}  // namespace Testing
