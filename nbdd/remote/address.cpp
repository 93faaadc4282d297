#include "nbdd/remote/address.h"

#include <fmt/core.h>
#include <netdb.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>

#include "nbdd/limits.h"
#include "nbdd/log/log.h"

namespace Nbdd::Remote {

namespace {

using Control::FailureCode;

std::atomic<int> lookups = 0;

struct Found {
  int error = 0;  // as getaddrinfo(3)
  std::vector<SocketAddress> addresses;
};

Found find(const std::string& host, std::uint16_t port, int flags) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = flags | AI_NUMERICSERV;
  addrinfo* list = nullptr;
  Found found;
  found.error = ::getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &list);
  const std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> owner(list, &::freeaddrinfo);
  for (const addrinfo* entry = list; entry != nullptr; entry = entry->ai_next) {
    SocketAddress& address = found.addresses.emplace_back();
    address.length = entry->ai_addrlen;
    std::memcpy(&address.storage, entry->ai_addr, entry->ai_addrlen);
  }
  return found;
}

Addresses lookUp(const std::string& host, std::uint16_t port) {
  if (host.empty()) {  // what nbdctl makes of a word that is no address
    return std::unexpected(
        Control::Failure{FailureCode::invalidArgument, "a server is named by its IPv4 or IPv6 address"});
  }
  Found found = find(host, port, 0);
  if (found.error == 0 && !found.addresses.empty()) return std::move(found.addresses);
  return std::unexpected(
      Control::Failure{FailureCode::connectionFailed,
                       fmt::format("the name {} leads to no address: {}", escaped(host),
                                   found.error == 0 ? "there is none" : ::gai_strerror(found.error))});
}

}  // namespace

std::vector<SocketAddress> parseAddress(const std::string& host, std::uint16_t port) {
  return find(host, port, AI_NUMERICHOST).addresses;
}

// Both threads hold it. `loop` says whether anybody still waits; `wake` and `result` belong to the loop's
// thread once the result is posted.
struct Lookup::Shared {
  std::mutex mutex;
  Io::EventLoop* loop = nullptr;  // guarded by mutex; null: nobody waits
  Io::Signal* wake = nullptr;     // the loop's thread; null: nobody waits
  std::optional<Addresses> result;
};

Lookup::Lookup(Io::EventLoop& loop, Io::Signal& wake, std::string host, std::uint16_t port)
    : shared_(std::make_shared<Shared>()) {
  shared_->loop = &loop;
  shared_->wake = &wake;
  const auto refuse = [this] {
    shared_->result = std::unexpected(Control::Failure{
        FailureCode::limitReached, "too many names of hosts are being looked up at the same time"});
  };
  if (lookups.fetch_add(1) >= Limits::nameLookups) {
    lookups.fetch_sub(1);
    refuse();
    return;
  }
  try {
    std::thread([shared = shared_, host = std::move(host), port] {
      Addresses result = lookUp(host, port);
      lookups.fetch_sub(1);
      const std::lock_guard lock(shared->mutex);
      if (shared->loop == nullptr) return;
      shared->loop->post([shared, result = std::move(result)]() mutable {
        shared->result = std::move(result);
        if (shared->wake != nullptr) shared->wake->notify();
      });
    }).detach();
  } catch (const std::system_error&) {
    lookups.fetch_sub(1);
    refuse();
  }
}

Lookup::~Lookup() {
  shared_->wake = nullptr;
  const std::lock_guard lock(shared_->mutex);
  shared_->loop = nullptr;
}

bool Lookup::done() const { return shared_->result.has_value(); }

Addresses Lookup::take() { return std::move(*shared_->result); }

}  // namespace Nbdd::Remote
