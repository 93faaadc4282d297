#include "nbdd/imports/file_lane.h"

#include <memory>
#include <utility>

namespace Nbdd {

/// A request that the import's device carries out instead: it is answered on its own loop all the same.
class FileLane::Passed final : public Remote::Request {
 public:
  Passed(Io::EventLoop& loop, Remote::Request& original) : loop_(loop), original_(original) {
    command = original.command;
    flags = original.flags;
    offset = original.offset;
    length = original.length;
    destination = original.destination;
    payload = original.payload;
    extents = original.extents;
  }

  /// On the thread of the import's loop.
  static void submit(std::unique_ptr<Passed> request, Remote::Device& device) {
    Passed& subject = *request;
    subject.self_ = std::move(request);
    device.submit(subject);
  }

  void done(Nbd::Error error) override {
    const std::unique_ptr<Passed> self = std::move(self_);
    loop_.post([&original = original_, error] { original.done(error); });
  }

 private:
  Io::EventLoop& loop_;
  Remote::Request& original_;
  std::unique_ptr<Passed> self_;  // until it is answered
};

FileLane::FileLane(Io::EventLoop& home, Remote::Device& homeDevice, FuseMount& mount, FileUsers& users,
                   std::function<void()> ended)
    : home_(home),
      homeDevice_(homeDevice),
      ended_(std::move(ended)),
      device_(loop_, homeDevice.forAnother(),
              {.connected = [this] { worker_.start(); },
               .waiting = [this](const Control::Failure& /*why*/) { worker_.stop(); },
               // The import's device will find out by itself.
               .failed = [this](const Control::Failure& /*why*/) { worker_.stop(); },
               .takeOver = [this](Remote::Request& request) { pass(request); }}),
      worker_(loop_, device_, mount, users) {
  loop_.post([this] { device_.start(); });
  thread_ = std::thread([this] { loop_.run(); });
}

FileLane::~FileLane() { thread_.join(); }

void FileLane::setCompression(bool enable) {
  loop_.post([this, enable] { device_.setCompression(enable); });
}

void FileLane::end() {
  loop_.post([this] { scope_.spawn(endAll()); });
}

// --- The lane's thread

void FileLane::pass(Remote::Request& request) {
  home_.post([passed = std::make_unique<Passed>(loop_, request), &device = homeDevice_]() mutable {
    Passed::submit(std::move(passed), device);
  });
}

Io::Task<void> FileLane::endAll() {
  worker_.stop();
  device_.stop();
  Io::Task<void> ending = worker_.ended();
  co_await ending;
  Io::Scope::Joined stopped = device_.stopped();
  co_await stopped;
  loop_.stop();
  home_.post(ended_);
}

}  // namespace Nbdd
