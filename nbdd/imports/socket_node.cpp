#include "nbdd/imports/socket_node.h"

#include <fmt/core.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

#include "nbdd/limits.h"

namespace Nbdd {

namespace {

std::unexpected<Control::Failure> fail(std::string_view what, int error) {
  return std::unexpected(
      Control::Failure{Control::FailureCode::importNodeFailed,
                       fmt::format("{}: {}", what, std::generic_category().message(error))});
}

}  // namespace

// --- The one export

void SocketNode::Exports::set(const Remote::Device& device) {
  namespace Flag = Nbd::TransmissionFlag;
  const Nbd::ExportLimits& limits = device.limits();
  constexpr std::uint16_t known = Flag::readOnly | Flag::sendFlush | Flag::sendFua | Flag::rotational |
                                  Flag::sendTrim | Flag::sendWriteZeroes | Flag::sendCache |
                                  Flag::sendFastZero;
  view_.size = limits.size;
  // All clients meet in one device, so they see the same; and every read is answered in one piece.
  view_.transmissionFlags = static_cast<std::uint16_t>(Flag::hasFlags | Flag::canMultiConn | Flag::sendDf |
                                                       (limits.transmissionFlags & known));
  view_.minimumBlock = limits.minimumBlock;
  view_.preferredBlock = std::max({device.preferredBlock(), limits.minimumBlock, 512U});
  view_.maximumPayload = limits.maximumPayload;
}

std::optional<Nbd::ExportView> SocketNode::Exports::find(std::string_view name) const {
  if (!name.empty()) return std::nullopt;
  return view_;
}

std::shared_ptr<const std::vector<Nbd::ListedExport>> SocketNode::Exports::list() const {
  return std::make_shared<const std::vector<Nbd::ListedExport>>(1, Nbd::ListedExport{});
}

// --- The node

SocketNode::SocketNode(NodeContext context)
    : context_(std::move(context)),
      path_(context_.directory / "socket"),
      retry_(context_.loop, [this] { onEvents(0); }) {}

Control::Result<std::filesystem::path> SocketNode::open() {
  exports_.set(context_.device);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path_.native().size() >= sizeof address.sun_path)
    return fail("its path is too long for a socket", ENAMETOOLONG);
  std::memcpy(address.sun_path, path_.c_str(), path_.native().size());
  listener_ = Io::FileDescriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!listener_) return fail("the system gives no socket", errno);
  // That of a predecessor that was killed.
  if (::unlink(path_.c_str()) != 0 && errno != ENOENT)
    return fail("something is in the socket's place", errno);
  const auto* const generic = reinterpret_cast<const sockaddr*>(&address);
  if (::bind(listener_.number(), generic, sizeof address) != 0)
    return fail("the socket cannot be made", errno);
  // Nobody can connect before listen(2), so nobody slips in before the mode is set.
  if (::chmod(path_.c_str(), S_IRUSR | S_IWUSR) != 0 ||
      ::listen(listener_.number(), static_cast<int>(Limits::nodeClients)) != 0) {
    return fail("the socket cannot be listened on", errno);
  }
  if (const int error = context_.loop.watch(listener_.number(), EPOLLIN | EPOLLET, *this); error != 0) {
    return fail("the socket cannot be listened on", error);
  }
  return path_;
}

void SocketNode::close(NodeEnding /*ending*/) {
  retry_.cancel();
  if (listener_) {
    context_.loop.unwatch(listener_.number(), *this);
    listener_.reset();
    ::unlink(path_.c_str());
  }
  for (SocketClient& client : clients_) client.end();
}

Io::Task<void> SocketNode::closed() {
  Io::Scope::Joined joined = scope_.join();
  co_await joined;
}

std::size_t SocketNode::users() const {
  return static_cast<std::size_t>(std::ranges::count_if(clients_, &SocketClient::inUse));
}

void SocketNode::onEvents(std::uint32_t /*events*/) {
  for (;;) {
    Io::FileDescriptor socket(::accept4(listener_.number(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!socket && (errno == EINTR || errno == ECONNABORTED)) continue;
    if (!socket) {
      // Out of descriptors or memory: whoever waits to be accepted is looked after later.
      if (errno != EAGAIN) retry_.start(Limits::acceptRetry);
      return;
    }
    if (clients_.size() < Limits::nodeClients) scope_.spawn(serve(std::move(socket)));
  }
}

Io::Task<void> SocketNode::serve(Io::FileDescriptor socket) {
  const auto client = clients_.emplace(clients_.end(), context_.loop, context_.device, buffers_,
                                       std::move(socket), context_.changed);
  Io::Task<void> running = client->run(exports_);
  co_await running;
  clients_.erase(client);
}

}  // namespace Nbdd
