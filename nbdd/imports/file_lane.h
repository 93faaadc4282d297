#pragma once

#include <functional>
#include <map>
#include <memory>
#include <thread>

#include "nbdd/imports/file_worker.h"
#include "nbdd/io/event_loop.h"
#include "nbdd/io/scope.h"
#include "nbdd/io/task.h"
#include "nbdd/remote/device.h"

namespace Nbdd {

/// Another thread for a mounted file: with a loop, a connection to the server, and a worker of its own, so
/// that a request stays on one thread from the kernel to the server and back.
///
/// It takes requests only while its connection stands. What that connection leaves unanswered is passed to
/// the device of the import, which knows more connections.
///
/// All functions belong to the thread of the import's loop.
class FileLane {
 public:
  /// Starts the thread; throws std::system_error if there is none. `ended` is called on `home`, once, after
  /// `end`.
  FileLane(Io::EventLoop& home, Remote::Device& homeDevice, FuseMount& mount, FileUsers& users,
           std::function<void()> ended);
  /// After `ended`.
  ~FileLane();
  FileLane(const FileLane&) = delete;
  FileLane& operator=(const FileLane&) = delete;

  void setCompression(bool enable);
  /// Ends the connection at once; what was asked fails, except with the import's device, which is to be
  /// stopped too.
  void end();

 private:
  class Passed;

  void pass(Remote::Request& request);
  void withdraw(const Remote::Request& request);
  Io::Task<void> endAll();

  Io::EventLoop& home_;
  Remote::Device& homeDevice_;
  const std::function<void()> ended_;
  std::map<const Remote::Request*, std::unique_ptr<Passed>> passed_;  // by the original

  // The lane's thread:
  Io::EventLoop loop_;
  Remote::Device device_;
  FileWorker worker_;
  Io::Scope scope_;

  std::thread thread_;
};

}  // namespace Nbdd
