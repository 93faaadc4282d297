#include "control/client.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <thread>

#include "tests/control/running_server.h"

namespace Control {
namespace {

using namespace std::chrono_literals;
using Testing::RunningServer;
namespace Samples = Testing::Samples;

// Every operation, from the client's arguments to the service's and back.

class RoundTripTest : public ::testing::Test {
 protected:
  template <class... Arguments, class Expected, class... Given>
  void expectAnswer(const Expected& expected, const Method<Arguments...>& method, const Given&... inputs) {
    const auto answer = client.call(method, inputs...);
    ASSERT_TRUE(answer.has_value()) << method.name << ": " << answer.error().message;
    EXPECT_TRUE(*answer == expected) << method.name;
  }

  template <class... Arguments, class... Given>
  void expectSuccess(const Method<Arguments...>& method, const Given&... inputs) {
    const auto answer = client.call(method, inputs...);
    EXPECT_TRUE(answer.has_value()) << method.name << ": " << answer.error().message;
  }

  RunningServer server;
  Client client = server.connect();
};

TEST_F(RoundTripTest, Server) {
  expectAnswer(Samples::firewallStates, Methods::serverStart);
  expectSuccess(Methods::serverStop);
  expectAnswer(Flags{ServerCapability::transferCompression}, Methods::serverCapabilities);
  expectAnswer(Samples::variant, Methods::serverGetNamedProperties);
  expectAnswer(Samples::remoteServers, Methods::serverDiscover);
}

TEST_F(RoundTripTest, Reservations) {
  expectSuccess(Methods::serverEnableReservation, std::optional<std::string>("secret"));
  EXPECT_EQ(server.onThread([&] { return server.service().text; }), "secret");
  expectSuccess(Methods::serverEnableReservation, std::optional<std::string>());
  EXPECT_EQ(server.onThread([&] { return server.service().text; }), std::nullopt);
  expectAnswer(Samples::localReservation, Methods::serverGetReservation);
  expectSuccess(Methods::serverReserveRemote, Samples::reservationRequest);
  EXPECT_EQ(server.onThread([&] { return server.service().request; }), Samples::reservationRequest);
  expectSuccess(Methods::serverUnreserveRemote, Samples::endpoint);
  EXPECT_EQ(server.onThread([&] { return server.service().endpoint; }), Samples::endpoint);
  expectAnswer(Samples::remoteReservations, Methods::serverListRemoteReservations);
}

TEST_F(RoundTripTest, Exports) {
  expectAnswer(std::vector{ExportId{1}, ExportId{4294967295}}, Methods::exportList);
  expectAnswer(Samples::exportInfo, Methods::exportInfo, ExportId{4294967295});
  expectAnswer(Samples::exportClients, Methods::exportGetClients, ExportId{2});
  expectAnswer(Samples::exportStatistics, Methods::exportGetStatistics, ExportId{3});
  expectAnswer(ExportId{3}, Methods::exportAdd, Samples::exportDescriptor);
  EXPECT_EQ(server.onThread([&] { return server.service().addedExport; }), Samples::exportDescriptor);
  expectSuccess(Methods::exportEnable, ExportId{4});
  expectSuccess(Methods::exportDisable, ExportId{5}, false);
  expectSuccess(Methods::exportDisable, ExportId{6}, true);
  expectSuccess(Methods::exportRemove, ExportId{7});
  EXPECT_EQ(server.calls(),
            (std::vector<std::string>{"exportList", "exportInfo 4294967295", "exportGetClients 2",
                                      "exportGetStatistics 3", "exportAdd", "exportEnable 4",
                                      "exportDisable 5", "exportDisable 6 force", "exportRemove 7"}));
}

TEST_F(RoundTripTest, Imports) {
  expectAnswer(std::vector{ImportId{7}}, Methods::importList);
  expectAnswer(Samples::importInfo, Methods::importInfo, ImportId{7});
  expectAnswer(ImportId{9}, Methods::importAdd, Samples::importDescriptor);
  EXPECT_EQ(server.onThread([&] { return server.service().addedImport; }), Samples::importDescriptor);
  expectSuccess(Methods::importEnable, ImportId{1});
  expectSuccess(Methods::importDisable, ImportId{2}, true);
  expectSuccess(Methods::importRemove, ImportId{3});
  expectAnswer(Samples::variant, Methods::importListNodeInterfaces, ImportId{4});
  expectSuccess(Methods::importEnableTransferCompression, true);
  EXPECT_EQ(server.calls(),
            (std::vector<std::string>{"importList", "importInfo 7", "importAdd", "importEnable 1",
                                      "importDisable 2 force", "importRemove 3", "importListNodeInterfaces 4",
                                      "importEnableTransferCompression on"}));
}

TEST_F(RoundTripTest, RemoteExports) {
  expectAnswer(Samples::remoteExports, Methods::fetchRemoteExports, Samples::endpoint,
               std::optional<std::string>());
  EXPECT_EQ(server.onThread([&] { return server.service().text; }), std::nullopt);
  expectAnswer(Samples::remoteExports, Methods::fetchRemoteExports, Samples::endpoint,
               std::optional<std::string>("size > 5"));
  EXPECT_EQ(server.onThread([&] { return server.service().text; }), "size > 5");
}

TEST_F(RoundTripTest, AFailureComesBackAsItIs) {
  const Failure failure{FailureCode::nodeInUse, "/dev/sda is mounted"};
  server.onThread([&] { server.service().failure = failure; });
  EXPECT_EQ(client.call(Methods::exportEnable, ExportId{1}).error(), failure);
  EXPECT_TRUE(client.isOpen());
}

TEST_F(RoundTripTest, ManyCallsTravelTogether) {
  for (std::uint32_t id = 0; id < 5000; ++id) ASSERT_TRUE(client.queue(Methods::exportInfo, ExportId{id}));
  for (std::uint32_t id = 0; id < 5000; ++id) {
    const auto info = client.receive(Methods::exportInfo);
    ASSERT_TRUE(info.has_value()) << info.error().message;
    ASSERT_EQ(info->id, ExportId{id});
  }
}

TEST_F(RoundTripTest, WhatCannotBeSentIsRefusedHere) {
  const auto badText = client.call(Methods::exportAdd, ExportDescriptor{.name = {}, .node = "/\xFF"});
  EXPECT_EQ(badText.error().code, FailureCode::invalidArgument);
  const auto unknownFlag = client.call(
      Methods::exportAdd, ExportDescriptor{.name = {}, .node = "/", .flags = Flags<ExportFlag>::fromMask(2)});
  EXPECT_EQ(unknownFlag.error().code, FailureCode::invalidArgument);
  const auto tooLong =
      client.call(Methods::exportAdd, ExportDescriptor{.name = {}, .node = std::string(70'000, 'a')});
  EXPECT_EQ(tooLong.error().code, FailureCode::invalidArgument);
  Variant deep;
  for (int level = 0; level < 40; ++level) deep = Variant{{.name = "a", .value = deep}};
  const auto tooDeep =
      client.call(Methods::serverReserveRemote,
                  RemoteServerReservationRequest{.endpoint = {}, .password = "", .properties = deep});
  EXPECT_EQ(tooDeep.error().code, FailureCode::invalidArgument);
  expectSuccess(Methods::serverStop);
  EXPECT_EQ(server.calls(), std::vector<std::string>{"serverStop"});
}

// A peer that is no decent service.

class OddPeerTest : public ::testing::Test {
 protected:
  OddPeerTest() : client(Descriptor()) {
    std::array<int, 2> ends{};
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
    client = Client(Descriptor(ends[0]));
    peer = Descriptor(ends[1]);
    client.setTimeout(100ms);
  }

  void say(std::string_view bytes) {
    ASSERT_EQ(::send(peer.number(), bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
  }

  /// What the client makes of `answer` (with its NUL, or without).
  Failure failureFor(std::string_view answer) {
    say(answer);
    const auto result = client.call(Methods::exportList);
    EXPECT_FALSE(result.has_value());
    return result ? Failure{} : result.error();
  }

  Client client;
  Descriptor peer;
};

using namespace std::string_view_literals;

TEST_F(OddPeerTest, NoAnswerInTime) {
  const auto before = Client::Clock::now();
  EXPECT_EQ(client.call(Methods::exportList).error().code, FailureCode::timeout);
  EXPECT_GE(Client::Clock::now() - before, 100ms);
  EXPECT_FALSE(client.isOpen());
  EXPECT_EQ(client.call(Methods::exportList).error().code, FailureCode::serviceUnavailable);
}

TEST_F(OddPeerTest, AnswersOneByteAtATime) {
  client.setTimeout(10s);
  std::thread slow([this] {
    for (const char byte : "{\"parameters\":{\"ids\":[1,2]}}\0"sv) {
      ASSERT_EQ(::send(peer.number(), &byte, 1, 0), 1);
    }
  });
  EXPECT_EQ(client.call(Methods::exportList), (std::vector{ExportId{1}, ExportId{2}}));
  slow.join();
}

TEST_F(OddPeerTest, HalfAnAnswerAndTheEnd) {
  say("{\"parameters\":{\"ids\""sv);
  ASSERT_EQ(::shutdown(peer.number(), SHUT_WR), 0);
  EXPECT_EQ(client.call(Methods::exportList).error().code, FailureCode::answerLost);
  EXPECT_FALSE(client.isOpen());
}

TEST_F(OddPeerTest, HalfAnAnswerAndSilence) {
  EXPECT_EQ(failureFor("{\"parameters\":"sv).code, FailureCode::timeout);
}

TEST_F(OddPeerTest, GoneBeforeTheCall) {
  peer.reset();
  EXPECT_EQ(client.call(Methods::exportList).error().code, FailureCode::serviceUnavailable);
}

TEST_F(OddPeerTest, GoneWithoutReadingTheCall) {
  ASSERT_TRUE(client.queue(Methods::exportList));
  client.flush();
  peer.reset();
  EXPECT_EQ(client.receive(Methods::exportList).error().code, FailureCode::serviceUnavailable);
}

TEST_F(OddPeerTest, GoneAfterReadingTheCall) {
  ASSERT_TRUE(client.queue(Methods::exportList));
  client.flush();
  std::array<char, 4096> call{};
  ASSERT_GT(::recv(peer.number(), call.data(), call.size(), 0), 0);
  peer.reset();
  EXPECT_EQ(client.receive(Methods::exportList).error().code, FailureCode::answerLost);
}

TEST_F(OddPeerTest, TurnedAwayWithAReason) {
  say("{\"error\":\"org.talvek.NBD.Failed\",\"parameters\":{\"code\":5,\"message\":\"not you\"}}\0"sv);
  peer.reset();
  EXPECT_EQ(client.call(Methods::exportList).error(), (Failure{FailureCode::accessDenied, "not you"}));
}

TEST_F(OddPeerTest, Garbage) {
  EXPECT_EQ(failureFor("\x16\x03\x01\0"sv).code, FailureCode::protocolError);
  EXPECT_FALSE(client.isOpen());
}

TEST_F(OddPeerTest, WrongOutput) {
  const Failure failure = failureFor("{\"parameters\":{\"ids\":[1,\"2\"]}}\0"sv);
  EXPECT_EQ(failure.code, FailureCode::protocolError);
  EXPECT_EQ(failure.message, "the service's answer has no valid \"ids\"");
}

TEST_F(OddPeerTest, ErrorWithoutACode) {
  EXPECT_EQ(failureFor("{\"error\":\"org.talvek.NBD.Failed\"}\0"sv).code, FailureCode::protocolError);
}

TEST_F(OddPeerTest, ErrorWithTheCodeThatMeansNone) {
  EXPECT_EQ(
      failureFor("{\"error\":\"org.talvek.NBD.Failed\",\"parameters\":{\"code\":0,\"message\":\"\"}}\0"sv)
          .code,
      FailureCode::protocolError);
}

TEST_F(OddPeerTest, VarlinksOwnErrors) {
  EXPECT_EQ(
      failureFor("{\"error\":\"org.varlink.service.MethodNotFound\",\"parameters\":{\"method\":\"m\"}}\0"sv)
          .code,
      FailureCode::notSupported);
  EXPECT_EQ(
      failureFor(
          "{\"error\":\"org.varlink.service.InvalidParameter\",\"parameters\":{\"parameter\":\"p\"}}\0"sv)
          .code,
      FailureCode::invalidArgument);
  EXPECT_TRUE(client.isOpen());
}

TEST_F(OddPeerTest, InterruptedWhileItWaits) {
  const Descriptor interruption(::eventfd(1, EFD_CLOEXEC));
  client.setTimeout(1min);
  client.setInterruption(interruption.number());
  EXPECT_EQ(client.call(Methods::exportList).error().code, FailureCode::interrupted);
  EXPECT_FALSE(client.isOpen());
}

TEST_F(OddPeerTest, SignalsDoNotDisturbIt) {
  struct sigaction action{};
  action.sa_handler = [](int) {};
  struct sigaction before{};
  ASSERT_EQ(::sigaction(SIGUSR1, &action, &before), 0);
  client.setTimeout(10s);
  const pthread_t caller = ::pthread_self();
  std::thread disturber([&] {
    std::array<char, 4096> call{};
    ASSERT_GT(::recv(peer.number(), call.data(), call.size(), 0), 0);
    for (int count = 0; count < 100; ++count) ::pthread_kill(caller, SIGUSR1);
    say("{\"parameters\":{\"ids\":[]}}\0"sv);
  });
  EXPECT_TRUE(client.call(Methods::exportList).has_value());
  disturber.join();
  ::sigaction(SIGUSR1, &before, nullptr);
}

TEST(ClientConnectTest, TellsWhyItCannot) {
  const auto code = [](const std::string& path) {
    const auto client = Client::connect(path, Client::Clock::now() + 100ms);
    return client ? FailureCode{} : client.error().code;
  };
  const Testing::TemporaryDirectory directory;
  EXPECT_EQ(code(directory.path() + "/none"), FailureCode::serviceUnavailable);
  EXPECT_EQ(code(directory.path() + "/" + std::string(200, 'a')), FailureCode::invalidArgument);
  EXPECT_EQ(code(""), FailureCode::invalidArgument);

  const std::string path = directory.path() + "/socket";
  auto listener = Nbdd::listenOnControlSocket(path, {});
  ASSERT_TRUE(listener.has_value());
  EXPECT_EQ(code(path), FailureCode{});
  listener->reset();
  EXPECT_EQ(code(path), FailureCode::serviceUnavailable) << "a socket that a killed service has left behind";
}

TEST(ClientConnectTest, WaitsNoLongerThanItMayForABusyListener) {
  const Testing::TemporaryDirectory directory;
  const std::string path = directory.path() + "/socket";
  const auto listener = Nbdd::listenOnControlSocket(path, {});
  ASSERT_TRUE(listener.has_value());
  ASSERT_EQ(::listen(listener->number(), 0), 0);
  std::vector<Client> waiting;
  for (;;) {
    auto client = Client::connect(path, Client::Clock::now() + 50ms);
    if (!client) {
      EXPECT_EQ(client.error().code, FailureCode::timeout);
      break;
    }
    waiting.push_back(std::move(*client));
    ASSERT_LT(waiting.size(), 100U);
  }
}

}  // namespace
}  // namespace Control
