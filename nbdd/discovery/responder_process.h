#pragma once

#include <sys/types.h>

#include <expected>
#include <functional>
#include <string>

#include "nbdd/discovery/messages.h"
#include "nbdd/io/event_loop.h"
#include "nbdd/io/file_descriptor.h"

namespace Nbdd::Discovery {

/// The responder as the service sees it: a child process, and a socket to it.
///
/// Belongs to the thread of `loop`. Destroying it ends the process by force if it still runs.
class ResponderProcess {
 public:
  struct Events {
    std::function<void(Report)> report;
    /// The process has ended, asked or not. The last call; may destroy this object.
    std::function<void()> ended;
  };

  ResponderProcess(Io::EventLoop& loop, Events events);
  ResponderProcess(const ResponderProcess&) = delete;
  ResponderProcess& operator=(const ResponderProcess&) = delete;
  ~ResponderProcess();

  /// Runs `program` (nbdd itself) as the responder. A failure is a sentence, and `ended` is not called then.
  std::expected<void, std::string> start(const std::string& program);

  /// Tells it what to do from now on. A process that does not listen to us any more is ended.
  void tell(const Wish& wish);

  /// Asks it to say goodbye and end; after Limits::discoveryGoodbye it is made to.
  void end();
  /// `end` was called.
  bool asked() const { return asked_; }

 private:
  /// Passes on what happens to one descriptor.
  class Handler final : public Io::EventHandler {
   public:
    explicit Handler(std::function<void()> function) : function_(std::move(function)) {}
    void onEvents(std::uint32_t /*events*/) override { function_(); }

   private:
    std::function<void()> function_;
  };

  void receive();
  void reap();
  void closeSocket();
  void kill();

  Io::EventLoop& loop_;
  Events events_;
  bool asked_ = false;
  pid_t process_ = -1;
  Io::FileDescriptor handle_;  // of the process
  Io::FileDescriptor socket_;
  Handler ended_;
  Handler readable_;
  Io::Timer patience_;
};

}  // namespace Nbdd::Discovery
