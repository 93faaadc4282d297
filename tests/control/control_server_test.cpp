#include "nbdd/control/control_server.h"

// The control server under clients that mean it no good. In every case another client, an ordinary one, must
// be served all the while.

#include <grp.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>

#include "control/limits.h"
#include "tests/control/running_server.h"

namespace Control {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;
using Testing::RunningServer;

class ControlServerTest : public ::testing::Test {
 protected:
  /// An ordinary client gets its answers.
  void expectService() {
    Client client = server.connect();
    const auto info = client.call(Methods::exportInfo, ExportId{1});
    ASSERT_TRUE(info.has_value()) << info.error().message;
  }

  /// Waits until the server holds `count` connections.
  void awaitConnections(std::size_t count) {
    const auto deadline = Client::Clock::now() + 20s;
    while (server.connections() != count && Client::Clock::now() < deadline) std::this_thread::yield();
    ASSERT_EQ(server.connections(), count);
  }

  /// What the server answers to `bytes`, which need no end of message; the connection must have been closed
  /// after it.
  Failure answerBeforeTheEnd(const std::string& bytes) {
    Client client = server.connect();
    EXPECT_TRUE(client.queueMessage(bytes).has_value());
    const auto message = client.receiveMessage();
    if (!message) return message.error();
    const auto reply = parseReply(std::string(*message));
    EXPECT_FALSE(reply.has_value());
    EXPECT_FALSE(client.receiveMessage().has_value()) << "the connection is still open";
    return reply.has_value() ? Failure{} : reply.error();
  }

  RunningServer server;
};

TEST_F(ControlServerTest, AnswersInOrderOneCallAtATime) {
  server.onThread([&] { server.service().holding = true; });
  Client client = server.connect();
  ASSERT_TRUE(client.queue(Methods::exportEnable, ExportId{1}));
  ASSERT_TRUE(client.queue(Methods::exportEnable, ExportId{2}));
  client.flush();
  const auto callCount = [&] { return server.calls().size(); };
  while (callCount() < 1) std::this_thread::yield();
  EXPECT_EQ(callCount(), 1U) << "the second call waits for the answer to the first";
  server.onThread([&] { server.service().held.at(0)(); });
  EXPECT_TRUE(client.receive(Methods::exportEnable).has_value());
  while (callCount() < 2) std::this_thread::yield();
  server.onThread([&] { server.service().held.at(1)(); });
  EXPECT_TRUE(client.receive(Methods::exportEnable).has_value());
}

TEST_F(ControlServerTest, ALongCallOfOneClientHoldsUpNoOther) {
  server.onThread([&] { server.service().holding = true; });
  Client slow = server.connect();
  ASSERT_TRUE(slow.queue(Methods::serverStop));
  slow.flush();
  while (server.calls().empty()) std::this_thread::yield();
  server.onThread([&] { server.service().holding = false; });
  expectService();
  server.onThread([&] { server.service().held.at(0)(); });
  EXPECT_TRUE(slow.receive(Methods::serverStop).has_value());
}

TEST_F(ControlServerTest, AClientMayLeaveDuringItsCall) {
  server.onThread([&] { server.service().holding = true; });
  {
    Client client = server.connect();
    ASSERT_TRUE(client.queue(Methods::serverStop));
    client.flush();
    while (server.calls().empty()) std::this_thread::yield();
  }
  server.onThread([&] {
    server.service().holding = false;
    server.service().held.at(0)();
  });
  awaitConnections(0);
  expectService();
}

TEST_F(ControlServerTest, WhatIsNoVarlinkIsAnsweredAndClosed) {
  for (const std::string& bytes : {"x"s, "{}"s, "\xFF"s, std::string(1000, '['), "GET / HTTP/1.1\r\n\r\n"s}) {
    EXPECT_EQ(answerBeforeTheEnd(bytes).code, FailureCode::protocolError);
    expectService();
  }
}

TEST_F(ControlServerTest, AMessageThatIsTooLongIsAnsweredAndClosed) {
  const Failure failure = answerBeforeTheEnd(std::string(Limits::requestLength + 1, ' '));
  EXPECT_EQ(failure, (Failure{FailureCode::protocolError, "the message is too long"}));
  expectService();
}

TEST_F(ControlServerTest, ARequestOfTheGreatestLengthIsServed) {
  Client client = server.connect();
  const std::string call = R"({"method":"org.talvek.NBD.ServerStop"})";
  ASSERT_TRUE(client.queueMessage(call + std::string(Limits::requestLength - call.size(), ' ')));
  EXPECT_EQ(client.receiveMessage(), R"({"parameters":{}})");
}

TEST_F(ControlServerTest, WrongTypesLeaveTheConnectionOpen) {
  Client client = server.connect();
  ASSERT_TRUE(client.queueMessage(R"({"method":"org.talvek.NBD.ExportInfo","parameters":{"id":"1"}})"));
  EXPECT_EQ(client.receiveMessage(),
            R"({"error":"org.varlink.service.InvalidParameter","parameters":{"parameter":"id"}})");
  EXPECT_TRUE(client.call(Methods::serverStop).has_value());
}

TEST_F(ControlServerTest, OnewayCallsAreNotAnswered) {
  Client client = server.connect();
  ASSERT_TRUE(client.queueMessage(R"({"method":"org.talvek.NBD.ServerStop","oneway":true})"));
  ASSERT_TRUE(client.queueMessage(R"({"method":"org.talvek.NBD.ExportList"})"));
  EXPECT_EQ(client.receiveMessage(), R"({"parameters":{"ids":[1,4294967295]}})");
  EXPECT_EQ(server.calls(), (std::vector<std::string>{"serverStop", "exportList"}));
}

TEST_F(ControlServerTest, HalfAMessageHoldsNothingUp) {
  std::vector<Client> halves;
  for (int count = 0; count < 50; ++count) {
    halves.push_back(server.connect());
    const auto half = R"({"method":"org.tal)"s;
    ASSERT_TRUE(halves.back().queueMessage(half).has_value());
    halves.back().flush();
  }
  expectService();
}

TEST_F(ControlServerTest, AClientThatNeverReadsCostsABoundedAmountAndNoOtherClient) {
  // A listing of a hundred thousand exports, asked for again and again: what is not read must not be made.
  server.onThread([&] { server.service().exports.assign(100'000, ExportId{4294967295}); });
  Client client = server.connect();
  for (int count = 0; count < 1000; ++count) ASSERT_TRUE(client.queue(Methods::exportList));
  client.flush();
  while (server.calls().empty()) std::this_thread::yield();
  for (int count = 0; count < 20; ++count) expectService();
  const auto calls = server.calls();
  EXPECT_LE(std::ranges::count(calls, "exportList"), 3);
}

TEST_F(ControlServerTest, AFloodOfCallsLeavesOthersTheirTurn) {
  Client flood = server.connect();
  for (int count = 0; count < 20'000; ++count) ASSERT_TRUE(flood.queue(Methods::exportEnable, ExportId{1}));
  std::thread flooding([&] {
    for (int count = 0; count < 20'000; ++count)
      ASSERT_TRUE(flood.receive(Methods::exportEnable).has_value());
  });
  while (server.calls().empty()) std::this_thread::yield();
  expectService();
  const auto calls = server.calls();
  EXPECT_LT(std::ranges::find(calls, "exportInfo 1") - calls.begin(), 20'000)
      << "served after the flood only";
  flooding.join();
}

TEST_F(ControlServerTest, ThousandsOfIdleConnectionsDoNotKeepAnOperatorOut) {
  Client early = server.connect();
  ASSERT_TRUE(early.call(Methods::serverStop).has_value());
  std::vector<Client> idle;
  for (int count = 0; count < 2000; ++count) {
    idle.push_back(server.connect());
    if (count % 500 == 0) expectService();
  }
  expectService();
  EXPECT_LE(server.connections(), Limits::connections);
  EXPECT_TRUE(early.call(Methods::serverStop).has_value()) << "one that has been of use makes room last";
}

TEST_F(ControlServerTest, WhenAllAreBusyTheExcessIsTurnedAwayWithAReason) {
  server.onThread([&] { server.service().holding = true; });
  std::vector<Client> busy;
  for (std::size_t count = 0; count < Limits::connections; ++count) {
    busy.push_back(server.connect());
    ASSERT_TRUE(busy.back().queue(Methods::serverStop));
    busy.back().flush();
  }
  while (server.calls().size() < Limits::connections) std::this_thread::yield();
  Client excess = server.connect();
  EXPECT_EQ(excess.call(Methods::serverStop).error().code, FailureCode::limitReached);
  server.onThread([&] {
    server.service().holding = false;
    for (auto& answer : server.service().held) answer();
  });
  for (Client& client : busy) EXPECT_TRUE(client.receive(Methods::serverStop).has_value());
  expectService();
}

TEST_F(ControlServerTest, CountsConnections) {
  EXPECT_EQ(server.connections(), 0U);
  {
    const Client one = server.connect();
    const Client two = server.connect();
    awaitConnections(2);
  }
  awaitConnections(0);
}

TEST_F(ControlServerTest, StoppingFinishesTheRunningCall) {
  server.onThread([&] { server.service().holding = true; });
  Client idle = server.connect();
  Client client = server.connect();
  ASSERT_TRUE(client.queue(Methods::exportEnable, ExportId{1}));
  ASSERT_TRUE(client.queue(Methods::exportEnable, ExportId{2}));
  client.flush();
  while (server.calls().empty()) std::this_thread::yield();
  std::thread stopping([&] { server.stop(); });
  EXPECT_FALSE(idle.receiveMessage().has_value()) << "an idle connection ends at once";
  server.onThread([&] { server.service().held.at(0)(); });
  EXPECT_TRUE(client.receive(Methods::exportEnable).has_value());
  EXPECT_FALSE(client.receive(Methods::exportEnable).has_value());
  stopping.join();
  EXPECT_EQ(server.service().calls, std::vector<std::string>{"exportEnable 1"});
}

TEST_F(ControlServerTest, RunningOutOfDescriptorsHarmsOnlyForAsLongAsItLasts) {
  // The server shares this process's descriptors: they are all taken, so it closes its idlest connection, and
  // goes on.
  Client idle = server.connect();
  ASSERT_TRUE(idle.call(Methods::serverStop).has_value());
  // Two turns of the loop, so that each kind of handler has had an event: the undefined-behaviour sanitizer
  // needs a pipe to look at the type of an object whose kind it meets for the first time.
  for (int turn = 0; turn < 2; ++turn) ASSERT_EQ(server.connections(), 1U);
  Descriptor socket(::socket(AF_UNIX, SOCK_STREAM, 0));
  std::vector<Descriptor> taken;
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
  const rlimit few{.rlim_cur = 200, .rlim_max = before.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &few), 0);
  for (;;) {
    Descriptor next(::dup(socket.number()));
    if (!next) break;
    taken.push_back(std::move(next));
  }
  taken.pop_back();
  auto client = Client::connect(server.path(), Client::Clock::now() + 10s);  // takes the last one
  ASSERT_TRUE(client.has_value());
  EXPECT_TRUE(client->call(Methods::serverStop).has_value());
  taken.clear();
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
  expectService();
}

// Who may connect. The tests run as root or not; only root can become somebody else.

/// The code that a call gets in a child process that runs as `user` and `group`.
int codeAs(const std::string& path, uid_t user, gid_t group, gid_t supplementary) {
  const pid_t child = ::fork();
  if (child == 0) {
    if (::setgroups(1, &supplementary) != 0 || ::setgid(group) != 0 || ::setuid(user) != 0) ::_exit(255);
    auto client = Client::connect(path, Client::Clock::now() + 10s);
    if (!client) ::_exit(static_cast<int>(client.error().code));
    const auto result = client->call(Methods::serverStop);
    ::_exit(result ? 0 : static_cast<int>(result.error().code));
  }
  int status = 0;
  EXPECT_EQ(::waitpid(child, &status, 0), child);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

constexpr uid_t somebody = 54321;
constexpr gid_t someGroup = 54322;
constexpr gid_t controlGroup = 54323;
constexpr int denied = static_cast<int>(FailureCode::accessDenied);

TEST(ControlAccessTest, OnlyTheOwnerRootAndTheGroup) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can become somebody else";
  RunningServer server(Nbdd::ControlAccess{.owner = 0, .group = controlGroup});
  // The socket's own mode would turn them away as well; the server must not rely on it.
  ASSERT_EQ(::chmod(server.path().c_str(), 0666), 0);
  ASSERT_EQ(::chmod(std::filesystem::path(server.path()).parent_path().c_str(), 0755), 0);
  EXPECT_EQ(codeAs(server.path(), 0, 0, 0), 0);
  EXPECT_EQ(codeAs(server.path(), somebody, someGroup, someGroup), denied);
  EXPECT_EQ(codeAs(server.path(), somebody, controlGroup, someGroup), 0);
  EXPECT_EQ(codeAs(server.path(), somebody, someGroup, controlGroup), 0);
}

TEST(ControlAccessTest, AUsersServiceIsTheUsersAlone) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can become somebody else";
  RunningServer server(Nbdd::ControlAccess{.owner = somebody, .group = {}});
  ASSERT_EQ(::chmod(server.path().c_str(), 0666), 0);
  ASSERT_EQ(::chmod(std::filesystem::path(server.path()).parent_path().c_str(), 0755), 0);
  EXPECT_EQ(codeAs(server.path(), somebody, someGroup, someGroup), 0);
  EXPECT_EQ(codeAs(server.path(), 0, 0, 0), 0);
  EXPECT_EQ(codeAs(server.path(), somebody + 1, someGroup, someGroup), denied);
}

// The listening socket.

struct ListeningSocketTest : ::testing::Test {
  mode_t modeOf(const std::string& path) {
    struct stat status{};
    EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777;
  }
  Testing::TemporaryDirectory directory;
};

TEST_F(ListeningSocketTest, IsForItsOwnerAloneInADirectoryOfItsOwn) {
  const std::string path = directory.path() + "/run/socket";
  const auto socket = Nbdd::listenOnControlSocket(path, {});
  ASSERT_TRUE(socket.has_value()) << socket.error();
  EXPECT_EQ(modeOf(path), 0600U);
  EXPECT_EQ(modeOf(directory.path() + "/run"), 0700U);
  EXPECT_TRUE(Client::connect(path, Client::Clock::now() + 1s).has_value());
}

TEST_F(ListeningSocketTest, IsForItsGroupIfThereIsOne) {
  const std::string path = directory.path() + "/socket";
  const auto socket = Nbdd::listenOnControlSocket(path, ::getegid());
  ASSERT_TRUE(socket.has_value()) << socket.error();
  EXPECT_EQ(modeOf(path), 0660U);
}

TEST_F(ListeningSocketTest, TakesThePlaceOfWhatWasLeftBehind) {
  const std::string path = directory.path() + "/socket";
  const auto first = Nbdd::listenOnControlSocket(path, {});
  const auto second = Nbdd::listenOnControlSocket(path, {});
  ASSERT_TRUE(second.has_value());
  EXPECT_TRUE(Client::connect(path, Client::Clock::now() + 1s).has_value());
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(directory.path()), {}), 1);
}

TEST_F(ListeningSocketTest, SaysWhatToDoWhenItCannotBeMade) {
  const auto tooLong = Nbdd::listenOnControlSocket(directory.path() + "/" + std::string(100, 'a'), {});
  ASSERT_FALSE(tooLong.has_value());
  EXPECT_NE(tooLong.error().find("too long"), std::string::npos) << tooLong.error();
  const auto noParent = Nbdd::listenOnControlSocket(directory.path() + "/a/b/socket", {});
  ASSERT_FALSE(noParent.has_value());
  EXPECT_NE(noParent.error().find("NBDD_RUNTIME_DIR"), std::string::npos) << noParent.error();
}

}  // namespace
}  // namespace Control
