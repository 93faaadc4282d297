#include "nbdd/discovery/responder.h"

#include <avahi-common/error.h>
#include <avahi-common/timeval.h>
#include <avahi-core/log.h>
#include <fmt/core.h>
#include <linux/capability.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "nbdd/discovery/announcer.h"
#include "nbdd/discovery/avahi.h"
#include "nbdd/discovery/browser.h"
#include "nbdd/discovery/host_links.h"
#include "nbdd/discovery/messages.h"
#include "nbdd/io/file_descriptor.h"
#include "nbdd/limits.h"

namespace Nbdd::Discovery {

namespace {

/// Addresses come in bursts when an interface comes up.
constexpr unsigned int linkSettleMilliseconds = 200;

/// Where the library's log goes, which it keeps for the whole process.
int logDescriptor = -1;

/// Sends a whole message; whoever receives always reads, so waiting for him is right, and if he is gone we
/// learn it from the socket's end.
void sendMessage(int descriptor, const std::string& message) {
  while (::send(descriptor, message.data(), message.size(), MSG_NOSIGNAL) < 0 && errno == EINTR) {
  }
}

void forwardLog(AvahiLogLevel level, const char* text) {
  // What the library merely notices is its own affair; that several responders run on a host is intended.
  if (level > AVAHI_LOG_WARN || std::string_view(text).find("another") != std::string_view::npos) return;
  const LogLevel ours = level == AVAHI_LOG_ERROR ? LogLevel::error : LogLevel::warning;
  sendMessage(logDescriptor, encode(Report(Remark{ours, displayText(text, Limits::discoveryTextLength)})));
}

/// What a multicast responder does needs no privilege at all. That the system refuses to take one away, as it
/// does in some containers, is no reason not to announce anything.
void dropPrivileges() {
  constexpr unsigned int nobody = 65'534;
  static_cast<void>(::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0));
  if (::geteuid() == 0) {
    static_cast<void>(::syscall(SYS_setgroups, 0, nullptr));
    static_cast<void>(::setresgid(nobody, nobody, nobody) == 0);
    static_cast<void>(::setresuid(nobody, nobody, nobody) == 0);
  }
  __user_cap_header_struct header{.version = _LINUX_CAPABILITY_VERSION_3, .pid = 0};
  std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3> none{};
  static_cast<void>(::syscall(SYS_capset, &header, none.data()));
}

Io::FileDescriptor watchLinks() {
  Io::FileDescriptor links(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE));
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  address.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR;
  if (links && ::bind(links.number(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    links.reset();
  return links;
}

class Responder {
 public:
  explicit Responder(int descriptor)
      : service_(descriptor),
        loop_(avahi_simple_poll_new()),
        poll_(loop_ ? avahi_simple_poll_get(loop_.get()) : nullptr) {}

  ExitCode run() {
    if (poll_ == nullptr) return ExitCode::failure;
    const AvahiWatched told(
        poll_->watch_new(poll_, service_.number(), AVAHI_WATCH_IN, &Responder::onTold, this), {poll_});
    links_ = watchLinks();
    if (links_) {
      linksWatch_ = AvahiWatched(
          poll_->watch_new(poll_, links_.number(), AVAHI_WATCH_IN, &Responder::onLinks, this), {poll_});
    } else {
      remark(LogLevel::warning, "changes of network interfaces are not noticed");
    }
    linksTimer_ = AvahiTimer(poll_->timeout_new(poll_, nullptr, &Responder::onLinksSettled, this), {poll_});
    while (avahi_simple_poll_iterate(loop_.get(), -1) == 0) {
    }
    announcer_.reset();
    browser_.reset();
    // The library sends its goodbyes when it ends.
    multicast_.reset();
    return failed_ ? ExitCode::failure : ExitCode::success;
  }

 private:
  static void onTold(AvahiWatch* /*watch*/, int /*descriptor*/, AvahiWatchEvent /*event*/, void* self) {
    static_cast<Responder*>(self)->receive();
  }

  static void onLinks(AvahiWatch* /*watch*/, int descriptor, AvahiWatchEvent /*event*/, void* self) {
    // What has changed is asked for afterwards; lost messages do not matter.
    std::array<char, 8192> message{};
    while (::recv(descriptor, message.data(), message.size(), 0) > 0) {
    }
    const Responder& responder = *static_cast<Responder*>(self);
    timeval soon{};
    avahi_elapse_time(&soon, linkSettleMilliseconds, 0);
    responder.poll_->timeout_update(responder.linksTimer_.get(), &soon);
  }

  static void onLinksSettled(AvahiTimeout* /*timeout*/, void* self) {
    Responder& responder = *static_cast<Responder*>(self);
    if (responder.announcer_) responder.announcer_->announceOn(hostLinks(responder.wish_.interfaces));
  }

  static void onServerState(AvahiServer* server, AvahiServerState state, void* self) {
    Responder& responder = *static_cast<Responder*>(self);
    if (state == AVAHI_SERVER_FAILURE) responder.fail(avahi_strerror(avahi_server_errno(server)));
  }

  void receive() {
    std::vector<char> buffer(Limits::discoveryMessage);
    const ssize_t length = ::recv(service_.number(), buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (length < 0 && (errno == EAGAIN || errno == EINTR)) return;
    if (length <= 0) return avahi_simple_poll_quit(loop_.get());
    auto wish = decodeWish({buffer.data(), static_cast<std::size_t>(length)});
    if (!wish) return fail(wish.error());
    fulfil(std::move(*wish));
  }

  void fulfil(Wish wish) {
    if (multicast_ && wish.interfaces != wish_.interfaces) return fail("the interfaces cannot change");
    const bool askAgain = wish.question != wish_.question;
    wish_ = std::move(wish);
    if (!multicast_ && !listen()) return;
    // The search first: an announcement takes its time.
    if (!wish_.browse) {
      browser_.reset();
    } else if (!browser_) {
      browser_.emplace(*multicast_, *poll_, [this](const Report& report) { tell(report); });
    } else if (askAgain) {
      browser_->askAgain();
    }
    if (wish_.announcements.empty()) {
      announcer_.reset();
    } else if (!announcer_ || announcer_->announcement() != wish_.announcements.front()) {
      announcer_.reset();
      announcer_.emplace(*multicast_, wish_.announcements.front(),
                         [this](LogLevel level, std::string text) { remark(level, std::move(text)); });
      announcer_->announceOn(hostLinks(wish_.interfaces));
    }
  }

  bool listen() {
    AvahiServerConfig config;
    avahi_server_config_init(&config);
    const std::unique_ptr<AvahiServerConfig, Freed<avahi_server_config_free>> owner(&config);
    // The host's own name, addresses and hardware are the business of the host's responder.
    config.host_name = avahi_strdup("nbdd");
    config.publish_hinfo = config.publish_addresses = config.publish_workstation = config.publish_domain = 0;
    config.enable_wide_area = 0;
    config.n_cache_entries_max = Limits::discoveryCache;
    for (const std::string& name : wish_.interfaces) {
      config.allow_interfaces = avahi_string_list_add(config.allow_interfaces, name.c_str());
    }
    for (const std::string& name : loopbackNames()) {
      config.deny_interfaces = avahi_string_list_add(config.deny_interfaces, name.c_str());
    }
    int error = AVAHI_OK;
    multicast_.reset(avahi_server_new(poll_, &config, &Responder::onServerState, this, &error));
    if (!multicast_) fail(avahi_strerror(error));
    return multicast_ != nullptr;
  }

  void tell(const Report& report) { sendMessage(service_.number(), encode(report)); }
  void remark(LogLevel level, std::string text) { tell(Remark{level, std::move(text)}); }

  void fail(std::string_view reason) {
    remark(LogLevel::warning, fmt::format("multicast DNS does not work: {}", reason));
    failed_ = true;
    avahi_simple_poll_quit(loop_.get());
  }

  const Io::FileDescriptor service_;
  const AvahiLoop loop_;
  const AvahiPoll* const poll_;
  Io::FileDescriptor links_;
  AvahiWatched linksWatch_;
  AvahiTimer linksTimer_;
  bool failed_ = false;
  Wish wish_;
  Multicast multicast_;
  std::optional<Browser> browser_;
  std::optional<Announcer> announcer_;
};

}  // namespace

ExitCode runResponder(int descriptor) {
  // It is the end of the socket that ends us, after the goodbye; signals to the whole group are not meant.
  for (const int signal : {SIGTERM, SIGINT, SIGHUP}) static_cast<void>(std::signal(signal, SIG_IGN));
  static_cast<void>(::prctl(PR_SET_NAME, "nbdd-discovery", 0, 0, 0));
  dropPrivileges();
  logDescriptor = descriptor;
  avahi_set_log_function(&forwardLog);
  Responder responder(descriptor);
  return responder.run();
}

}  // namespace Nbdd::Discovery
