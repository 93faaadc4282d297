#include "nbdd/imports/block_node.h"

#include <fmt/core.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <random>
#include <system_error>
#include <thread>
#include <utility>

#include "nbdd/imports/kernel_driver.h"
#include "nbdd/limits.h"
#include "nbdd/log/log.h"
#include "nbdd/remote/backoff.h"

// A request of the kernel has no limit of time: while the server is away it waits here, as requests through
// the other nodes do. What the kernel cannot be asked is to repeat requests at once when this process has
// died; it does so when it next looks after them, which is every Limits::kernelRequestTick.
//
// A device whose service has ended waits for the next one, which finds it by its identifier and gives it a
// new connection before it has reached the server: from then on programs wait for the server alone.

namespace Nbdd {

namespace {

namespace fs = std::filesystem;
namespace Flag = Nbd::TransmissionFlag;

constexpr std::uint32_t smallestBlock = 512;

std::string errnoText(int error) { return std::generic_category().message(error); }

/// What the kernel is told of the export: flags that mean nothing to its driver stay away.
std::uint16_t flagsFor(const Nbd::ExportLimits& limits) {
  constexpr std::uint16_t passedOn = Flag::readOnly | Flag::sendFlush | Flag::sendFua | Flag::rotational |
                                     Flag::sendTrim | Flag::sendWriteZeroes;
  return static_cast<std::uint16_t>(Flag::hasFlags | (limits.transmissionFlags & passedOn));
}

}  // namespace

BlockNode::BlockNode(NodeContext context)
    : context_(std::move(context)), path_(context_.directory / "block"), wake_(context_.loop) {}

BlockNode::~BlockNode() = default;

std::optional<std::string> BlockNode::missing() { return KernelDriver::missing(); }

bool BlockNode::isThere(const fs::path& path) {
  std::error_code error;
  const auto index = KernelDriver::indexOf(fs::read_symlink(path, error));
  return !error && index && KernelDriver::look(*index);
}

std::size_t BlockNode::countUsers(const fs::path& path) {
  std::error_code error;
  const auto index = KernelDriver::indexOf(fs::read_symlink(path, error));
  return !error && index ? KernelDriver::usersOf(*index) : 0;
}

// --- Making it

std::unique_ptr<NodeInterface> BlockNode::inherit(const NodeContext& context) {
  auto node = std::make_unique<BlockNode>(context);
  if (!node->takeOver()) return nullptr;
  return node;
}

/// Gives the device that a predecessor has left a connection, which nobody answers on yet.
bool BlockNode::takeOver() {
  for (const std::uint32_t index : KernelDriver::find(context_.identity)) {
    index_ = index;
    if (attach()) {
      inherited_ = true;
      log(LogLevel::info, "block-inherited", "{} is kept for {}", KernelDriver::pathOf(index).native(),
          escaped(path_.native()));
      return true;
    }
  }
  index_.reset();
  return false;
}

std::expected<NbdNetlink::Settings, std::string> BlockNode::settings() const {
  const Nbd::ExportLimits& limits = context_.device.limits();
  const std::uint32_t block = std::max(limits.minimumBlock, smallestBlock);
  const std::uint64_t size = limits.size / block * block;
  // Later kernels may take larger blocks, but none refuses a page.
  if (block > static_cast<std::uint32_t>(::sysconf(_SC_PAGESIZE))) {
    return std::unexpected(fmt::format("an export with blocks of at most {} bytes; this one has {}",
                                       ::sysconf(_SC_PAGESIZE), block));
  }
  if (size == 0) return std::unexpected("an export of at least one block");
  return NbdNetlink::Settings{.size = size,
                              .blockSize = block,
                              .transmissionFlags = flagsFor(limits),
                              .deadConnection = Limits::deadKernelConnection,
                              .identifier = context_.identity};
}

/// What the kernel's requests are measured by.
Nbd::ExportLimits BlockNode::limits() const {
  Nbd::ExportLimits limits = context_.device.limits();
  limits.transmissionFlags = flagsFor(limits);
  limits.headers = Nbd::HeaderStyle::simple;
  limits.blockStatus = false;
  return limits;
}

Control::Result<fs::path> BlockNode::open() {
  const auto fail = [](const std::string& message) {
    return std::unexpected(Control::Failure{Control::FailureCode::importNodeFailed, message});
  };
  const auto wanted = settings();
  if (inherited_) {
    const auto device = KernelDriver::look(*index_);
    const bool readOnly = (context_.device.limits().transmissionFlags & Flag::readOnly) != 0;
    if (!wanted || !device || device->size != wanted->size || device->readOnly != readOnly) {
      // Whoever uses it must not find another disk in its place.
      log(LogLevel::error, "block-changed", "{} is disconnected: the export is not what it was",
          KernelDriver::pathOf(*index_).native());
      disconnect();
      inherited_ = false;
    }
  }
  if (!wanted) return fail(wanted.error());
  if (!index_) {
    if (const auto connected = connect(*wanted); !connected) return fail(connected.error());
  }
  if (const auto linked = link(); !linked) {
    if (!inherited_) disconnect();
    return fail(linked.error());
  }
  // Memory that this thread needs must not wait for dirty pages that only it can write. It takes
  // CAP_SYS_RESOURCE, and is worth going on without.
  ::prctl(PR_SET_IO_FLUSHER, 1, 0, 0, 0);
  scope_.spawn(serve());
  return path_;
}

namespace {

/// A connection whose ends are ours and the kernel's. That neither blocks matters to ours alone.
std::expected<std::pair<Io::FileDescriptor, Io::FileDescriptor>, std::string> makePair() {
  std::array<int, 2> pair{};
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, pair.data()) != 0) {
    return std::unexpected("the system gives no pair of sockets: " + errnoText(errno));
  }
  return std::pair(Io::FileDescriptor(pair[0]), Io::FileDescriptor(pair[1]));
}

/// On a thread aside, because the kernel may let it wait for requests that this one answers.
void tuneAside(std::uint32_t index, std::size_t largestRequest) {
  const KernelDriver::Tuning tuning{.requestTick = Limits::kernelRequestTick,
                                    .largestRequest = std::min(largestRequest, Limits::kernelRequest),
                                    .readAhead = Limits::kernelReadAhead};
  try {
    std::thread([index, tuning] { KernelDriver::tune(index, tuning); }).detach();
  } catch (const std::system_error&) {
    log(LogLevel::warning, "block-untuned", "the system has no thread to tune {} with",
        KernelDriver::pathOf(index).native());
  }
}

}  // namespace

/// Has the kernel make the device.
std::expected<void, std::string> BlockNode::connect(const NbdNetlink::Settings& settings) {
  auto pair = makePair();
  if (!pair) return std::unexpected(pair.error());
  const auto index = KernelDriver::connect(settings, pair->second.number());
  if (!index) return std::unexpected(index.error());
  index_ = *index;
  socket_ = std::move(pair->first);
  tuneAside(*index_, context_.device.limits().maximumPayload);
  return {};
}

/// Gives the device another connection.
std::expected<void, std::string> BlockNode::attach() {
  auto pair = makePair();
  if (!pair) return std::unexpected(pair.error());
  auto attached = KernelDriver::reconfigure(*index_, context_.identity, pair->second.number());
  if (attached) socket_ = std::move(pair->first);
  return attached;
}

/// Has the node's path lead to the device; whoever uses the path meanwhile finds the old one or the new.
std::expected<void, std::string> BlockNode::link() const {
  const fs::path target = KernelDriver::pathOf(*index_);
  std::error_code error;
  if (!fs::exists(target, error)) {
    return std::unexpected(fmt::format("{}, which the kernel has made, is not there", target.native()));
  }
  fs::path fresh = path_;
  fresh += ".new";
  fs::remove(fresh, error);
  fs::create_symlink(target, fresh, error);
  if (!error) fs::rename(fresh, path_, error);
  if (error) return std::unexpected(fmt::format("its link cannot be made: {}", error.message()));
  return {};
}

// --- Its end

void BlockNode::close(NodeEnding ending) {
  closing_ = true;
  // Before all else: the kernel must not take for errors what fails because we end.
  if (client_ != nullptr) client_->end();
  socket_.reset();
  wake_.notify();
  if (!index_) return;
  if (ending == NodeEnding::untilRestart && KernelDriver::usersOf(*index_) > 0) {
    log(LogLevel::notice, "block-left", "{} is in use and waits {} s for the next nbdd",
        KernelDriver::pathOf(*index_).native(), Limits::deadKernelConnection.count());
    return;
  }
  disconnect();
}

/// Our end of its connection is closed, so the kernel has nothing to wait for.
void BlockNode::disconnect() {
  socket_.reset();
  if (const auto disconnected = KernelDriver::disconnect(*index_); !disconnected) {
    log(LogLevel::warning, "block-not-disconnected", "{} cannot be disconnected: {}",
        KernelDriver::pathOf(*index_).native(), disconnected.error());
  }
  index_.reset();
  std::error_code ignored;
  fs::remove(path_, ignored);
}

Io::Task<void> BlockNode::closed() {
  Io::Scope::Joined joined = scope_.join();
  co_await joined;
}

// --- Serving the kernel

Io::Task<void> BlockNode::serve() {
  // What the predecessor had asked the server may still be on its way there.
  if (inherited_) {
    Io::Task<void> settling = pause(Limits::settleTime);
    co_await settling;
  }
  Remote::Backoff backoff({Limits::attachFirst, Limits::attachLongest}, std::random_device{}());
  while (!closing_) {
    Io::Task<void> serving = serveConnection();
    co_await serving;
    // The kernel has not taken the connection, since it had another that was not quite dead; or has dropped
    // it, perhaps because somebody has disconnected the device.
    Io::Task<void> pausing = pause(backoff.next());
    co_await pausing;
    if (closing_) break;
    if (const auto attached = attach(); !attached) {
      log(LogLevel::error, "block-lost", "{} was disconnected by others: {}",
          KernelDriver::pathOf(*index_).native(), attached.error());
      index_.reset();
      std::error_code ignored;
      fs::remove(path_, ignored);
      co_return;
    }
  }
}

Io::Task<void> BlockNode::serveConnection() {
  SocketClient client(context_.loop, context_.device, buffers_, std::move(socket_), [] {});
  client_ = &client;
  Io::Task<void> running = client.runAgreed(limits());
  co_await running;
  client_ = nullptr;
}

Io::Task<void> BlockNode::pause(std::chrono::milliseconds time) {
  Io::Timer timer(context_.loop, [this] { wake_.notify(); });
  timer.start(time);
  while (timer.running() && !closing_) {
    Io::Signal::Waiting waiting = wake_.wait();
    co_await waiting;
  }
}

}  // namespace Nbdd
