#pragma once

#include <functional>

#include "nbdd/io/event_loop.h"
#include "nbdd/io/file_descriptor.h"

namespace Nbdd {

/// Takes the signals that steer the process out of the loop, instead of out of the blue: SIGTERM, SIGINT and
/// SIGHUP. They are blocked for the thread that makes this and for all threads it starts afterwards.
class Signals final : public Io::EventHandler {
 public:
  /// `handle` is called with the signal's number. Throws std::system_error (start-up only).
  Signals(Io::EventLoop& loop, std::function<void(int)> handle);
  ~Signals() override;
  Signals(const Signals&) = delete;
  Signals& operator=(const Signals&) = delete;

  void onEvents(std::uint32_t events) override;

 private:
  Io::EventLoop& loop_;
  std::function<void(int)> handle_;
  Io::FileDescriptor descriptor_;
};

}  // namespace Nbdd
