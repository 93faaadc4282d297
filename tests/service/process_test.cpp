// nbdd as a process: how it starts, is steered, and ends.

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <thread>

#include "control/methods.h"
#include "nbdd/io/file_descriptor.h"
#include "nbdd/state/saved_state.h"
#include "talvek_version.h"
#include "tests/support/service_process.h"

namespace Nbdd {
namespace {

using namespace std::chrono_literals;
using ::Testing::readText;
using ::Testing::ServiceProcess;
namespace Methods = Control::Methods;

template <class T>
Control::FailureCode codeOf(const Control::Result<T>& result) {
  return result ? Control::FailureCode{} : result.error().code;
}

Control::ExportId addAndEnable(Control::Client& client, const std::string& node) {
  Control::ExportDescriptor descriptor;
  descriptor.node = node;
  const auto id = client.call(Methods::exportAdd, descriptor);
  EXPECT_TRUE(id.has_value()) << id.error().message;
  EXPECT_TRUE(client.call(Methods::exportEnable, *id).has_value());
  return *id;
}

bool awaits(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + 20s;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(5ms);
  }
  return true;
}

bool isOneSentence(const std::string& text) {
  return text.starts_with("nbdd: ") && text.ends_with("\n") && text.find('\n') == text.size() - 1;
}

std::size_t countOf(std::string_view words, std::string_view text) {
  std::size_t count = 0;
  for (auto at = text.find(words); at != std::string_view::npos; at = text.find(words, at + 1)) ++count;
  return count;
}

/// A listening TCP socket that keeps a port of 127.0.0.1 from everybody else.
class TakenPort {
 public:
  explicit TakenPort(std::uint16_t port) : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const int on = 1;
    ::setsockopt(socket_.number(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    taken_ = ::bind(socket_.number(), reinterpret_cast<const sockaddr*>(&address), length) == 0 &&
             ::listen(socket_.number(), 1) == 0 &&
             ::getsockname(socket_.number(), reinterpret_cast<sockaddr*>(&address), &length) == 0;
    port_ = ntohs(address.sin_port);
  }
  bool taken() const { return taken_; }
  std::uint16_t port() const { return port_; }

 private:
  Io::FileDescriptor socket_;
  bool taken_ = false;
  std::uint16_t port_ = 0;
};

std::string configurationFor(std::uint16_t port) {
  return "[server]\nlisten = [\"127.0.0.1\"]\nport = " + std::to_string(port) + "\n";
}

TEST(Process, HelpAndVersionAreAnswered) {
  ServiceProcess help;
  help.addArgument("--help");
  EXPECT_EQ(help.runToEnd().exitCode, 0);
  for (const char* const option :
       {"--help", "--version", "--config", "--check-config", "--on-demand", "--ready-fd"}) {
    EXPECT_NE(help.output().find(option), std::string::npos) << option;
  }
  for (const char* const option : {"--version", "-V"}) {
    ServiceProcess version;
    version.addArgument(option);
    EXPECT_EQ(version.runToEnd().exitCode, 0) << option;
    EXPECT_EQ(version.output(), std::string("nbdd ") + talvekVersion + "\n") << option;
  }
}

TEST(Process, WrongWordsAreUsageErrors) {
  for (const std::vector<std::string>& words : std::vector<std::vector<std::string>>{{"--unknown"},
                                                                                     {"word"},
                                                                                     {"--ready-fd", "x"},
                                                                                     {"--ready-fd", "999"},
                                                                                     {"--ready-fd", "1"},
                                                                                     {"--config", ""},
                                                                                     {"--config"}}) {
    ServiceProcess service;
    for (const std::string& word : words) service.addArgument(word);
    EXPECT_EQ(service.runToEnd().exitCode, 2) << words.front();
    EXPECT_TRUE(isOneSentence(service.log())) << service.log();
  }
}

TEST(Process, AConfigurationIsCheckedWithoutAService) {
  ServiceProcess right;
  right.addArgument("--check-config");
  EXPECT_EQ(right.runToEnd().exitCode, 0);
  EXPECT_NE(right.output().find("nbdd.toml is correct"), std::string::npos);
  EXPECT_FALSE(std::filesystem::exists(right.controlSocket().parent_path()));
  ServiceProcess wrong;
  wrong.configure("[server]\nprot = 1\n");
  wrong.addArgument("--check-config");
  EXPECT_EQ(wrong.runToEnd().exitCode, 1);
  EXPECT_TRUE(isOneSentence(wrong.log())) << wrong.log();
  EXPECT_NE(wrong.log().find("nbdd.toml:2:1: "), std::string::npos);
}

TEST(Process, EveryStartUpErrorIsOneSentence) {
  const std::map<std::string, std::function<void(ServiceProcess&)>> mistakes{
      {"configuration", [](ServiceProcess& service) { service.configure("x"); }},
      {"missing configuration",
       [](ServiceProcess& service) { service.setVariable("NBDD_CONFIG", "/nonexistent"); }},
      {"state",
       [](ServiceProcess& service) {
         std::filesystem::create_directory(service.stateFile().parent_path());
         service.files().write("state/state.json", "{");
       }},
      {"newer state",
       [](ServiceProcess& service) {
         std::filesystem::create_directory(service.stateFile().parent_path());
         service.files().write("state/state.json", "{\"format\":\"org.talvek.NBD.state\",\"version\":2}");
       }},
      {"runtime directory",
       [](ServiceProcess& service) {
         service.setVariable("NBDD_RUNTIME_DIR", service.files().write("file", ""));
       }},
      {"state directory",
       [](ServiceProcess& service) {
         service.setVariable("NBDD_STATE_DIR", service.files().write("file", ""));
       }},
      {"one directory",
       [](ServiceProcess& service) {
         service.setVariable("NBDD_STATE_DIR", service.directory() / "runtime");
       }},
      {"long socket path",
       [](ServiceProcess& service) {
         service.setVariable("NBDD_RUNTIME_DIR", service.directory() / std::string(120, 'x'));
       }},
      {"idle time", [](ServiceProcess& service) { service.setVariable("NBDD_IDLE_SECONDS", "soon"); }},
  };
  for (const auto& [name, make] : mistakes) {
    ServiceProcess service;
    make(service);
    EXPECT_EQ(service.runToEnd().exitCode, 1) << name;
    EXPECT_TRUE(isOneSentence(service.log())) << name << ": " << service.log();
  }
}

TEST(Process, ADamagedStateIsNeverOverwritten) {
  ServiceProcess service;
  std::filesystem::create_directory(service.stateFile().parent_path());
  service.files().write("state/state.json", "{\"format\"");
  EXPECT_EQ(service.runToEnd().exitCode, 1);
  EXPECT_EQ(readText(service.stateFile()), "{\"format\"");
}

TEST(Process, ASecondServiceIsTurnedAway) {
  ServiceProcess first;
  first.start();
  ServiceProcess second;
  second.setVariable("NBDD_RUNTIME_DIR", first.directory() / "runtime");
  EXPECT_EQ(second.runToEnd().exitCode, 3);
  EXPECT_TRUE(isOneSentence(second.log())) << second.log();
  EXPECT_NE(second.log().find("(process " + std::to_string(first.process()) + ")"), std::string::npos)
      << second.log();
  ServiceProcess third;
  third.setVariable("NBDD_STATE_DIR", first.directory() / "state");
  EXPECT_EQ(third.runToEnd().exitCode, 3);
  EXPECT_TRUE(first.connect().call(Methods::exportList).has_value());
}

TEST(Process, FilesAreItsOwnersAlone) {
  ServiceProcess service;
  service.start();
  const auto mode = [](const std::filesystem::path& path) {
    return std::filesystem::status(path).permissions();
  };
  EXPECT_EQ(mode(service.stateFile()), std::filesystem::perms(0600));
  EXPECT_EQ(mode(service.stateFile().parent_path()), std::filesystem::perms(0700));
  EXPECT_EQ(static_cast<unsigned>(mode(service.controlSocket())) & 0007U, 0U);
}

TEST(Process, EndsAfterSigtermAndTakesItsSocketAway) {
  ServiceProcess service;
  service.start();
  Control::Client client = service.connect();
  addAndEnable(client, service.files().sparse("disk.img", 4096));
  ASSERT_TRUE(client.call(Methods::serverStart).has_value());
  EXPECT_EQ(service.stop().exitCode, 0) << service.log();
  EXPECT_FALSE(std::filesystem::exists(service.controlSocket()));
}

TEST(Process, WhatWasSetSurvivesKillAndEnd) {
  ServiceProcess service;
  service.start();
  Control::Client client = service.connect();
  const auto first = addAndEnable(client, service.files().sparse("disk.img", 1000));
  Control::ExportDescriptor second;
  second.node = service.files().sparse("other.img", 512);
  second.flags.set(Control::ExportFlag::readOnly);
  const auto added = client.call(Methods::exportAdd, second);
  ASSERT_TRUE(added.has_value());
  ASSERT_TRUE(client.call(Methods::serverStart).has_value());
  const auto infoBefore = client.call(Methods::exportInfo, first).value();
  const auto otherBefore = client.call(Methods::exportInfo, *added).value();
  for (const bool kill : {true, false}) {
    if (kill) service.kill9();
    service.restart();
    client = service.connect();
    EXPECT_EQ(client.call(Methods::exportInfo, first).value(), infoBefore);
    EXPECT_EQ(client.call(Methods::exportInfo, *added).value(), otherBefore);
    EXPECT_NE(service.port(), 0);
  }
  ASSERT_TRUE(client.call(Methods::serverStop).has_value());
  service.kill9();
  service.start();
  EXPECT_EQ(service.port(), 0);
}

TEST(Process, StartAndStopAreIdempotent) {
  ServiceProcess service;
  service.start();
  Control::Client client = service.connect();
  EXPECT_TRUE(client.call(Methods::serverStop).has_value());
  ASSERT_TRUE(client.call(Methods::serverStart).has_value());
  const std::uint16_t port = service.port();
  ASSERT_TRUE(client.call(Methods::serverStart).has_value());
  EXPECT_EQ(service.port(), port);
  EXPECT_TRUE(client.call(Methods::serverStop).has_value());
  EXPECT_TRUE(client.call(Methods::serverStop).has_value());
  EXPECT_EQ(service.port(), 0);
  EXPECT_TRUE(client.call(Methods::serverStart).has_value());
}

TEST(Process, ATakenPortIsToldAndNothingIsHalfStarted) {
  const TakenPort other(0);
  ASSERT_TRUE(other.taken());
  ServiceProcess service;
  service.configure(configurationFor(other.port()));
  service.start();
  Control::Client client = service.connect();
  EXPECT_EQ(codeOf(client.call(Methods::serverStart)), Control::FailureCode::portInUse);
  EXPECT_EQ(service.port(), 0);
  EXPECT_FALSE(parseState(readText(service.stateFile()))->serverStarted);
}

TEST(Process, AServerWhosePortWasTakenListensAgainWhenItIsFree) {
  std::optional<TakenPort> other(std::in_place, std::uint16_t{0});
  const std::uint16_t port = other->port();
  other.reset();
  ServiceProcess service;
  service.configure(configurationFor(port));
  service.start();
  ASSERT_TRUE(service.connect().call(Methods::serverStart).has_value());
  service.kill9();
  other.emplace(port);
  ASSERT_TRUE(other->taken());
  service.start();
  EXPECT_EQ(service.port(), 0);
  EXPECT_NE(service.log().find("cannot listen again"), std::string::npos) << service.log();
  const auto properties = service.connect().call(Methods::serverGetNamedProperties).value();
  const Control::VariantEntry waiting{"server", std::string("waiting for its address or port")};
  EXPECT_EQ(std::ranges::count(properties, waiting), 1);
  other.reset();
  EXPECT_TRUE(awaits([&] { return service.port() == port; })) << service.log();
}

TEST(Process, AChangeThatCannotBeSavedIsRefused) {
  ServiceProcess service;
  service.start();
  Control::Client client = service.connect();
  const auto blocker = service.stateFile().parent_path() / "state.json.new";
  std::filesystem::create_directory(blocker);
  Control::ExportDescriptor descriptor;
  descriptor.node = service.files().sparse("disk.img", 512);
  EXPECT_EQ(codeOf(client.call(Methods::exportAdd, descriptor)), Control::FailureCode::stateNotSaved);
  EXPECT_TRUE(client.call(Methods::exportList).value().empty());
  EXPECT_EQ(codeOf(client.call(Methods::serverStart)), Control::FailureCode::stateNotSaved);
  EXPECT_TRUE(awaits([&] { return service.port() == 0; }));
  std::filesystem::remove(blocker);
  EXPECT_TRUE(client.call(Methods::exportAdd, descriptor).has_value());
  EXPECT_TRUE(client.call(Methods::serverStart).has_value());
}

TEST(Process, ALostControlSocketIsMadeAnew) {
  const std::map<std::string, std::function<void(const std::filesystem::path&)>> losses{
      {"socket", [](const auto& runtime) { std::filesystem::remove(runtime / "org.talvek.NBD"); }},
      {"lock", [](const auto& runtime) { std::filesystem::remove(runtime / "nbdd.lock"); }},
      {"directory", [](const auto& runtime) { std::filesystem::remove_all(runtime); }},
      {"parents", [](const auto& runtime) { std::filesystem::remove_all(runtime.parent_path()); }},
      {"moved", [](const auto& runtime) { std::filesystem::rename(runtime, runtime.native() + ".old"); }},
  };
  for (const auto& [name, lose] : losses) {
    ServiceProcess service;
    const std::filesystem::path runtime = service.directory() / "parent" / "runtime";
    service.setVariable("NBDD_RUNTIME_DIR", runtime);
    service.start();
    Control::Client before = service.connect();
    // A second time too: the new place is watched as the first one was.
    for (std::size_t times = 1; times <= 2; ++times) {
      lose(runtime);
      std::filesystem::remove_all(runtime.native() + ".old");
      EXPECT_TRUE(awaits([&] { return countOf("has been made anew", service.log()) == times; }))
          << name << ": " << service.log();
      EXPECT_TRUE(service.connect().call(Methods::exportList).has_value()) << name;
      EXPECT_TRUE(before.call(Methods::exportList).has_value()) << name << ": open connections stay";
      ServiceProcess second;
      second.setVariable("NBDD_RUNTIME_DIR", runtime);
      EXPECT_EQ(second.runToEnd().exitCode, 3) << name << ": the lock is gone";
    }
    EXPECT_EQ(service.stop().exitCode, 0);
    EXPECT_FALSE(std::filesystem::exists(service.controlSocket())) << name;
  }
}

TEST(Process, AControlSocketThatCannotBeMadeAnewIsTriedAgain) {
  ServiceProcess service;
  const std::filesystem::path runtime = service.controlSocket().parent_path();
  service.start();
  std::filesystem::rename(runtime, runtime.native() + ".old");
  service.files().write("runtime", "in the way");
  EXPECT_TRUE(awaits([&] { return service.log().find("cannot be made anew yet") != std::string::npos; }))
      << service.log();
  std::filesystem::remove(runtime);
  EXPECT_TRUE(awaits([&] { return std::filesystem::exists(service.controlSocket()); })) << service.log();
  EXPECT_TRUE(service.connect().call(Methods::exportList).has_value());
  EXPECT_EQ(countOf("cannot be made anew yet", service.log()), 1U);
}

TEST(Process, TheConfigurationIsReadAgain) {
  ServiceProcess service;
  service.start();
  service.configure("[server]\nport = 1234\n");
  service.signal(SIGHUP);
  EXPECT_TRUE(awaits([&] { return service.log().find("from the next start") != std::string::npos; }))
      << service.log();
  service.configure("[server]\nport = wrong\n");
  service.signal(SIGHUP);
  EXPECT_TRUE(awaits([&] { return service.log().find("stays as it was") != std::string::npos; }))
      << service.log();
  EXPECT_TRUE(service.connect().call(Methods::exportList).has_value());
}

TEST(Process, AServiceOnDemandLeavesWhenThereIsNothingToDo) {
  ServiceProcess service;
  service.addArgument("--on-demand");
  service.setVariable("NBDD_IDLE_SECONDS", "1");
  service.start();
  const auto ending = service.awaitEnd(20s);
  ASSERT_TRUE(ending.has_value());
  EXPECT_EQ(ending->exitCode, 0);
  EXPECT_FALSE(std::filesystem::exists(service.controlSocket()));
  EXPECT_EQ(service.log(), "") << "the terminal is not its own";
  EXPECT_NE(readText(service.stateFile().parent_path() / "nbdd.log").find("nothing to do"),
            std::string::npos);
}

TEST(Process, AServiceOnDemandStaysWhileItIsNeeded) {
  ServiceProcess service;
  service.addArgument("--on-demand");
  service.setVariable("NBDD_IDLE_SECONDS", "1");
  service.start();
  {
    Control::Client client = service.connect();
    EXPECT_FALSE(service.awaitEnd(2500ms).has_value()) << "somebody is connected";
    ASSERT_TRUE(client.call(Methods::serverStart).has_value());
  }
  EXPECT_FALSE(service.awaitEnd(2500ms).has_value()) << "the server is started";
  ASSERT_TRUE(service.connect().call(Methods::serverStop).has_value());
  EXPECT_TRUE(service.awaitEnd(20s).has_value());
}

TEST(Process, AServiceStartedWhileAnotherEndsTakesItsPlace) {
  ServiceProcess first;
  first.start();
  ServiceProcess second;
  second.setVariable("NBDD_RUNTIME_DIR", first.directory() / "runtime");
  for (int round = 0; round < 5; ++round) {
    first.signal(SIGTERM);
    ASSERT_TRUE(awaits([&] { return !std::filesystem::exists(first.controlSocket()); }));
    second.start();
    EXPECT_TRUE(first.awaitEnd(20s).has_value());
    EXPECT_TRUE(second.connect().call(Methods::exportList).has_value());
    EXPECT_EQ(second.stop().exitCode, 0);
    first.start();
  }
}

TEST(Process, ASocketThatTheManagerPassesIsServedAndLeft) {
  ServiceProcess service;
  std::filesystem::create_directory(service.controlSocket().parent_path());
  std::filesystem::permissions(service.controlSocket().parent_path(), std::filesystem::perms(0700));
  const Io::FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  service.controlSocket().native().copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(::bind(socket.number(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(::listen(socket.number(), 8), 0);
  service.passSocket(socket.number());
  for (int round = 0; round < 2; ++round) {
    service.start();
    EXPECT_TRUE(service.connect().call(Methods::exportList).has_value());
    EXPECT_EQ(service.stop().exitCode, 0);
    EXPECT_TRUE(std::filesystem::exists(service.controlSocket())) << "the socket is the manager's";
  }
}

TEST(Process, ASecondSignalDoesNotWait) {
  ServiceProcess service;
  service.start();
  // A client that reads none of its replies is waited for a while. It has asked for more than the socket
  // holds once nothing is added any more to what it could read.
  const Io::FileDescriptor client(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  service.controlSocket().native().copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(::connect(client.number(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  std::string calls;
  for (int call = 0; call < 500; ++call) {
    calls +=
        R"({"method":"org.varlink.service.GetInterfaceDescription","parameters":{"interface":"org.talvek.NBD"}})";
    calls += '\0';
  }
  ASSERT_EQ(::send(client.number(), calls.data(), calls.size(), MSG_NOSIGNAL),
            static_cast<ssize_t>(calls.size()));
  int unread = 0;
  ASSERT_TRUE(awaits([&] {
    const int before = unread;
    std::this_thread::sleep_for(100ms);
    return ::ioctl(client.number(), FIONREAD, &unread) == 0 && unread > 0 && unread == before;
  }));
  service.signal(SIGTERM);
  ASSERT_FALSE(service.awaitEnd(300ms).has_value()) << "nothing was waited for";
  service.signal(SIGINT);
  const auto ending = service.awaitEnd(20s);
  ASSERT_TRUE(ending.has_value());
  EXPECT_EQ(ending->exitCode, 1);
}

/// A Unix socket that receives what a service tells its manager.
class NotifySocket {
 public:
  explicit NotifySocket(const std::string& path) : socket_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(::bind(socket_.number(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  }
  /// Whether a message with `text` in it comes.
  bool hears(const std::string& text) {
    return awaits([&] {
      char buffer[4096];
      const ssize_t length = ::recv(socket_.number(), buffer, sizeof buffer, MSG_DONTWAIT);
      return length > 0 &&
             std::string_view(buffer, static_cast<std::size_t>(length)).find(text) != std::string_view::npos;
    });
  }

 private:
  Io::FileDescriptor socket_;
};

TEST(Process, TheServiceManagerIsKeptInformed) {
  ServiceProcess service;
  const std::string path = service.directory() / "notify";
  NotifySocket manager(path);
  service.setVariable("NOTIFY_SOCKET", path);
  service.setVariable("WATCHDOG_USEC", "200000");
  service.start();
  EXPECT_TRUE(manager.hears("READY=1"));
  EXPECT_TRUE(manager.hears("WATCHDOG=1"));
  EXPECT_TRUE(manager.hears("WATCHDOG=1"));
  service.signal(SIGHUP);
  EXPECT_TRUE(manager.hears("RELOADING=1"));
  EXPECT_TRUE(manager.hears("READY=1"));
  service.signal(SIGTERM);
  EXPECT_TRUE(manager.hears("STOPPING=1"));
  EXPECT_TRUE(service.awaitEnd(20s).has_value());
}

}  // namespace
}  // namespace Nbdd
