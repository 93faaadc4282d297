#include "nbdd/imports/file_lane.h"

#include <memory>
#include <utility>

namespace Nbdd {

/// A request that the import's device carries out instead: it is answered on its own loop all the same.
class FileLane::Passed final : public Remote::Request {
 public:
  Passed(FileLane& lane, Remote::Request& original) : lane_(lane), original_(original) {
    command = original.command;
    flags = original.flags;
    offset = original.offset;
    length = original.length;
    destination = original.destination;
    payload = original.payload;
    extents = original.extents;
  }

  void done(Nbd::Error error) override {
    lane_.loop_.post([&original = original_, error] { original.done(error); });
    const auto self = lane_.passed_.extract(&original_);  // and so to its end
  }

 private:
  FileLane& lane_;
  Remote::Request& original_;
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
               .takeOver = [this](Remote::Request& request) { pass(request); },
               .withdraw = [this](const Remote::Request& request) { withdraw(request); }}),
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
  // Its memory is this thread's to take.
  if (request.command == Nbd::Command::read && request.destination.empty()) request.takeMemory();
  home_.post([this, &request] {
    const auto [place, isNew] = passed_.emplace(&request, std::make_unique<Passed>(*this, request));
    homeDevice_.submit(*place->second);
  });
}

/// By now the request may be answered at home, and no more be there.
void FileLane::withdraw(const Remote::Request& request) {
  home_.post([this, original = &request] {
    const auto found = passed_.find(original);
    if (found != passed_.end()) homeDevice_.withdraw(*found->second);
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
