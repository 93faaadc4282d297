#include "nbdd/imports/file_node.h"

#include <fmt/core.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>

#include "nbdd/limits.h"
#include "nbdd/log/log.h"

// The mounted thing is a single regular file: FUSE's root, mounted on a file. The kernel keeps pages that
// were read, and reads ahead; what is written goes to the server before write(2) returns (no writeback
// cache), so that an error is the writer's, and fsync(2) is a FLUSH. A worker takes requests on the import's
// own thread; where the server allows it, lanes do so on others.

namespace Nbdd {

FileNode::FileNode(NodeContext context)
    : context_(std::move(context)),
      mount_(context_.directory / "disk", FileWorker::operations(), nullptr),
      worker_(context_.loop, context_.device, mount_, users_),
      laneEnded_(context_.loop) {
  ::clock_gettime(CLOCK_REALTIME, &users_.since);
  users_.changed = [&loop = context_.loop, changed = context_.changed] { loop.post(changed); };
  users_.tell = [&loop = context_.loop, changed = context_.changed,
                 home = std::this_thread::get_id()](std::function<void()> then) {
    const auto both = [changed, then = std::move(then)] {
      changed();
      then();
    };
    if (std::this_thread::get_id() == home) return both();
    loop.post(both);  // before the lane that asks can tell that it has ended
  };
}

std::optional<std::string> FileNode::missing() {
  if (::access("/dev/fuse", R_OK | W_OK) != 0) {
    const int error = errno;
    const std::string_view remedy =
        error == ENOENT ? "load the module \"fuse\"" : "let this user read and write it";
    return fmt::format("/dev/fuse: {}; {}", std::generic_category().message(error), remedy);
  }
  const bool canMount = ::geteuid() == 0;
  for (const char* const helper :
       {"/usr/bin/fusermount3", "/bin/fusermount3", "/usr/local/bin/fusermount3"}) {
    if (canMount || ::access(helper, X_OK) == 0) return std::nullopt;
  }
  return "fusermount3, from the package fuse3";
}

Control::Result<std::filesystem::path> FileNode::open() {
  if (auto mounted = mount_.mount(); !mounted) return std::unexpected(std::move(mounted.error()));
  worker_.start();
  if (!worker_.started()) {
    mount_.unmount();
    return std::unexpected(
        Control::Failure{Control::FailureCode::importNodeFailed, "FUSE's descriptor cannot be watched"});
  }
  openLanes();
  return mount_.place();
}

void FileNode::openLanes() {
  if (!context_.device.allowsSeveral() || context_.device.limits().minimumBlock > 1) return;
  const std::size_t threads = std::min<std::size_t>(std::thread::hardware_concurrency(), Limits::fileThreads);
  try {
    while (lanes_.size() + 1 < threads) {
      lanes_.push_back(std::make_unique<FileLane>(context_.loop, context_.device, mount_, users_, [this] {
        --running_;
        laneEnded_.notify();
      }));
      ++running_;
    }
  } catch (const std::system_error& error) {
    log(LogLevel::warning, "few-threads", "the file {} is served by {} threads only: {}",
        escaped(mount_.place().native()), lanes_.size() + 1, error.what());
  }
}

void FileNode::close(NodeEnding /*ending*/) {
  if (std::exchange(closed_, true)) return;
  mount_.unmount();
  users_.count = 0;
  for (const auto& lane : lanes_) lane->end();
}

Io::Task<void> FileNode::closed() {
  Io::Task<void> ending = worker_.ended();
  co_await ending;
  while (running_ > 0) {
    Io::Signal::Waiting waiting = laneEnded_.wait();
    co_await waiting;
  }
}

void FileNode::setCompression(bool enable) {
  for (const auto& lane : lanes_) lane->setCompression(enable);
}

std::size_t FileNode::users() const { return users_.count; }

}  // namespace Nbdd
