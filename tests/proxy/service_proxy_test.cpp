#include "host/service_proxy.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <thread>

#include "host/console.h"
#include "platform/commandline.h"
#include "platform/error.h"
#include "tests/control/running_server.h"

namespace Host {
namespace {

using namespace std::chrono_literals;
using Control::ExportId;
using Control::Failure;
using Control::FailureCode;
using Control::Testing::RunningServer;
namespace Samples = Control::Testing::Samples;
namespace Types = Records::Types;
using Types::ExportID;
using Types::ImportID;

std::string text(const Ref<String>& value) { return value ? std::string(value->view()) : "<none>"; }

class ServiceProxyTest : public ::testing::Test {
 protected:
  RunningServer server;
  Ref<ServiceProxy> proxy = makeRef<ServiceProxy>(ServiceLocation{server.path(), {}}, 10s);
};

void expectSampleVariant(const Types::Variant& variant) {
  ASSERT_EQ(variant.count(), 5U);
  EXPECT_EQ(variant.entry(0).type, Types::VariantType::Empty);
  EXPECT_EQ(text(variant.entry(0).name), "empty");
  EXPECT_EQ(variant.entry(1).type, Types::VariantType::Number);
  EXPECT_EQ(variant.entry(1).number, 18446744073709551615U);
  EXPECT_EQ(variant.entry(2).type, Types::VariantType::Text);
  EXPECT_EQ(text(variant.entry(2).text), "Grüße, \"Welt\" \\ \n\x01");
  EXPECT_EQ(variant.entry(3).type, Types::VariantType::Binary);
  EXPECT_EQ(variant.entry(3).binary->length(), 3U);
  EXPECT_EQ(variant.entry(4).type, Types::VariantType::Nested);
  EXPECT_EQ(variant.entry(4).nested.count(), 2U);
}

TEST_F(ServiceProxyTest, Server) {
  std::vector<Types::NetIfFirewallState> endpoints;
  ASSERT_TRUE(proxy->serverStart(endpoints));
  ASSERT_EQ(endpoints.size(), 2U);
  EXPECT_EQ(endpoints[0].endpoint.address.groups,
            (std::array<std::uint16_t, 8>{0xFE80, 0, 0, 0, 0, 0, 0, 1}));
  EXPECT_EQ(endpoints[0].endpoint.address.scope, 2U);
  EXPECT_EQ(endpoints[0].endpoint.port, 10809);
  EXPECT_EQ(endpoints[1].endpoint.address.family, 2U);
  EXPECT_EQ(endpoints[1].endpoint.address.pair(0), 0xC0000207U);
  EXPECT_TRUE(proxy->serverStop());
  EXPECT_EQ(proxy->serverCapabilities().mask(), 2U);
  const auto properties = proxy->serverGetNamedProperties();
  ASSERT_TRUE(properties.has_value());
  expectSampleVariant(*properties);
  std::vector<Types::RemoteServerDescriptor> servers;
  ASSERT_TRUE(proxy->serverDiscover(servers));
  ASSERT_EQ(servers.size(), 1U);
  EXPECT_EQ(text(servers[0].label), "storage");
  expectSampleVariant(servers[0].properties);
}

TEST_F(ServiceProxyTest, Reservations) {
  EXPECT_TRUE(proxy->serverEnableReservation(String::create(std::string_view("secret"))));
  EXPECT_EQ(server.onThread([&] { return server.service().text; }), "secret");
  EXPECT_TRUE(proxy->serverEnableReservation(std::nullopt));
  EXPECT_EQ(server.onThread([&] { return server.service().text; }), std::nullopt);
  const auto reservation = proxy->serverGetReservation();
  ASSERT_TRUE(reservation.has_value());
  EXPECT_EQ(reservation->endpoint.address.scope, 2U);
  Types::RemoteServerReservationRequest request;
  request.endpoint = {Services::Network::Definitions::IPAddress::ofIPv4(0xC0000207U), 0};
  request.password = String::create(std::string_view("pw"));
  EXPECT_TRUE(proxy->serverReserveRemote(request));
  EXPECT_EQ(server.onThread([&] { return server.service().request; }),
            (Control::RemoteServerReservationRequest{.endpoint = {"192.0.2.7", 0}, .password = "pw"}));
  EXPECT_TRUE(proxy->serverUnreserveRemote({reservation->endpoint.address, 0}));
  EXPECT_EQ(server.onThread([&] { return server.service().endpoint; }), (Control::Endpoint{"fe80::1%2", 0}));
  EXPECT_TRUE(proxy->serverUnreserveRemote({}));
  EXPECT_EQ(server.onThread([&] { return server.service().endpoint; }), (Control::Endpoint{"", 0}));
  std::vector<Types::RemoteServerReservationInfo> reservations;
  EXPECT_TRUE(proxy->serverListRemoteReservations(reservations));
  EXPECT_EQ(reservations.size(), 1U);
}

TEST_F(ServiceProxyTest, Exports) {
  const auto info = proxy->exportInfo(ExportID{4294967295});
  ASSERT_TRUE(info.has_value());
  EXPECT_EQ(info->id, ExportID{4294967295});
  EXPECT_EQ(text(info->descriptor.name), "disk.img");
  EXPECT_EQ(text(info->descriptor.node), "/srv/disk.img");
  EXPECT_EQ(info->descriptor.flags, Types::ReadOnly);
  EXPECT_EQ(info->descriptor.elemCount, 18446744073709551615U);
  EXPECT_EQ(info->descriptor.elemSize, 512U);
  EXPECT_EQ(info->state, Types::ExportState::Failed);
  EXPECT_EQ(info->reason, Types::ExportReason::AccessError);
  EXPECT_EQ(text(info->uuid), "0fc63daf-8483-4772-8e79-3d69d8477de4");

  std::vector<Types::ExportClientInfo> clients;
  ASSERT_TRUE(proxy->exportGetClients(ExportID{1}, clients));
  ASSERT_EQ(clients.size(), 2U);
  EXPECT_EQ(clients[1].endpoint.address.pair(0), 0x0A000005U);
  EXPECT_EQ(clients[1].endpoint.port, 1);

  Types::ExportStatistics statistics;
  ASSERT_TRUE(proxy->exportGetStatistics(ExportID{1}, statistics));
  EXPECT_EQ(statistics.rx.bytesTransTransferred, 18446744073709551615U);
  EXPECT_EQ(statistics.tx.numTransTotal, 5U);

  Types::ExportDescriptor descriptor;
  descriptor.node = String::create(std::string_view("/n"));
  descriptor.flags = Types::ReadOnly;
  EXPECT_EQ(proxy->exportAdd(descriptor), ExportID{3});
  EXPECT_EQ(server.onThread([&] { return server.service().addedExport; }),
            (Control::ExportDescriptor{.node = "/n", .flags = {Control::ExportFlag::readOnly}}));

  EXPECT_TRUE(proxy->exportEnable(ExportID{4}));
  EXPECT_TRUE(proxy->exportDisable(ExportID{5}, true));
  EXPECT_TRUE(proxy->exportDisable(ExportID{6}, false));
  EXPECT_TRUE(proxy->exportRemove(ExportID{7}));
  const auto calls = server.calls();
  EXPECT_EQ((std::vector<std::string>(calls.end() - 4, calls.end())),
            (std::vector<std::string>{"exportEnable 4", "exportDisable 5 force", "exportDisable 6",
                                      "exportRemove 7"}));
}

TEST_F(ServiceProxyTest, Imports) {
  std::vector<ImportID> ids;
  ASSERT_TRUE(proxy->importList(ids));
  EXPECT_EQ(ids, std::vector{ImportID{7}});
  const auto info = proxy->importInfo(ImportID{7});
  ASSERT_TRUE(info.has_value());
  EXPECT_EQ(info->state, Types::ImportState::Connecting);
  EXPECT_EQ(info->size, 1'073'741'824U);
  EXPECT_EQ(info->disableReason, Types::ImportDisableReason::NetworkError);
  EXPECT_EQ(info->descriptor.flags, Types::DontAnnounceStorage | Types::ForceReadOnly);
  EXPECT_EQ(text(info->node), "/dev/nbd0");
  Types::ImportDescriptor descriptor;
  descriptor.name = String::create(std::string_view("vol"));
  descriptor.server = info->descriptor.server;
  EXPECT_EQ(proxy->importAdd(descriptor), ImportID{9});
  EXPECT_EQ(server.onThread([&] { return server.service().addedImport; }),
            (Control::ImportDescriptor{.name = "vol", .server = Samples::endpoint}));
  EXPECT_TRUE(proxy->importEnable(ImportID{1}));
  EXPECT_TRUE(proxy->importDisable(ImportID{2}, true));
  EXPECT_TRUE(proxy->importRemove(ImportID{3}));
  EXPECT_TRUE(proxy->importEnableTransferCompression(true));
  const auto interfaces = proxy->importListNodeInterfaces(ImportID{4});
  ASSERT_TRUE(interfaces.has_value());
  expectSampleVariant(*interfaces);
}

TEST_F(ServiceProxyTest, RemoteExports) {
  const auto endpoint = Records::toPlatform(Samples::endpoint);
  const auto list = proxy->fetchRemoteExports(endpoint);
  ASSERT_TRUE(list.has_value());
  EXPECT_EQ(list->endpoint, endpoint);
  EXPECT_TRUE(list->isTalvekServer);
  EXPECT_EQ(text(list->uuid), "server");
  ASSERT_EQ(list->exports.size(), 2U);
  EXPECT_EQ(text(list->exports[0].uuid), "u");
  EXPECT_EQ(list->exports[0].size, 18446744073709551615U);
  EXPECT_EQ(list->exports[0].flags, 3U);
  EXPECT_FALSE(static_cast<bool>(list->exports[1].uuid));
  EXPECT_EQ(server.onThread([&] { return server.service().text; }), std::nullopt);
  auto expression =
      Libraries::DiskSpec::Parser::parse(String::create(std::string_view("size>5K")), {})->takeExpression();
  EXPECT_TRUE(proxy->fetchRemoteExports(endpoint, std::move(expression)).has_value());
  EXPECT_EQ(server.onThread([&] { return server.service().text; }), "size > 5K");
}

TEST_F(ServiceProxyTest, AFailureLeavesItsCode) {
  server.onThread([&] { server.service().failure = Failure{FailureCode::nodeInUse, "busy"}; });
  EXPECT_FALSE(proxy->exportEnable(ExportID{1}));
  EXPECT_EQ(Error::get(), static_cast<std::uint32_t>(FailureCode::nodeInUse));
  EXPECT_EQ(proxy->serverCapabilities().mask(), 0U);
  std::vector<ExportID> ids;
  EXPECT_FALSE(proxy->exportList(ids));
  EXPECT_FALSE(proxy->exportInfo(ExportID{1}).has_value());
}

TEST_F(ServiceProxyTest, WhatCannotBeSentIsAnInvalidArgument) {
  Types::ExportDescriptor descriptor;
  descriptor.node = String::create(std::string_view("/\xFF"));
  EXPECT_EQ(proxy->exportAdd(descriptor), std::nullopt);
  EXPECT_EQ(Error::get(), static_cast<std::uint32_t>(FailureCode::invalidArgument));
  EXPECT_EQ(proxy->fetchRemoteExports({}, nullptr).has_value(), false);
  EXPECT_EQ(Error::get(), static_cast<std::uint32_t>(FailureCode::invalidArgument));
  EXPECT_TRUE(server.calls().empty());
}

TEST_F(ServiceProxyTest, AServiceThatWentAwayBetweenTwoOperationsIsFoundAgain) {
  ASSERT_TRUE(proxy->exportEnable(ExportID{1}));
  server.stop();
  EXPECT_FALSE(proxy->exportEnable(ExportID{2}));
  EXPECT_EQ(Error::get(), static_cast<std::uint32_t>(FailureCode::serviceUnavailable));
  server.start();
  EXPECT_TRUE(proxy->exportEnable(ExportID{3}));
  server.stop();
  server.start();
  EXPECT_TRUE(proxy->exportEnable(ExportID{4}));
  EXPECT_EQ(server.calls(), (std::vector<std::string>{"exportEnable 1", "exportEnable 3", "exportEnable 4"}));
}

TEST_F(ServiceProxyTest, WhatWasPrintedIsSeenBeforeTheServiceAnswers) {
  std::array<int, 2> ends{};
  ASSERT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
  const Control::Descriptor readEnd(ends[0]);
  const Control::Descriptor writeEnd(ends[1]);
  const Control::Descriptor before(::dup(STDOUT_FILENO));
  ::dup2(writeEnd.number(), STDOUT_FILENO);
  server.onThread([&] { server.service().holding = true; });
  std::array<char, 64> seen{};
  std::thread reader([&] {
    EXPECT_GT(::read(readEnd.number(), seen.data(), seen.size()), 0);
    while (server.calls().empty()) std::this_thread::yield();
    server.onThread([&] { server.service().held.at(0)(); });
  });
  Libraries::Commandline::outPrinter()->printText("Enabling... ");
  EXPECT_TRUE(proxy->exportEnable(ExportID{1}));
  reader.join();
  ::dup2(before.number(), STDOUT_FILENO);
  EXPECT_STREQ(seen.data(), "Enabling... ");
}

// Ctrl-C during a call that takes long, in a process of its own whose standard input is a terminal, or is
// not.

class CtrlCTest : public ServiceProxyTest {
 protected:
  /// How a utility ends that asks for something that takes long, is interrupted, and then asks again.
  int statusAfterCtrlC(int standardInput) {
    server.onThread([&] { server.service().holding = true; });
    const pid_t utility = ::fork();
    if (utility == 0) {
      ::dup2(standardInput, STDIN_FILENO);
      const auto own = makeRef<ServiceProxy>(ServiceLocation{server.path(), {}}, 10s);
      const bool first = own->exportEnable(ExportID{1});
      const bool interrupted = !first && Error::get() == static_cast<std::uint32_t>(FailureCode::interrupted);
      ::_exit(interrupted && own->exportEnable(ExportID{2}) ? 0 : 1);
    }
    while (server.calls().empty()) std::this_thread::yield();
    server.onThread([&] { server.service().holding = false; });
    ::kill(utility, SIGINT);
    int status = 0;
    EXPECT_EQ(::waitpid(utility, &status, 0), utility);
    server.onThread([&] { server.service().held.at(0)(); });
    return status;
  }
};

TEST_F(CtrlCTest, EndsTheWaitOfAnInteractiveUtilityAndNotTheUtility) {
  const Control::Descriptor controller(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
  ASSERT_EQ(::grantpt(controller.number()), 0);
  ASSERT_EQ(::unlockpt(controller.number()), 0);
  const Control::Descriptor terminal(::open(::ptsname(controller.number()), O_RDWR | O_NOCTTY | O_CLOEXEC));
  ASSERT_TRUE(static_cast<bool>(terminal));
  const int status = statusAfterCtrlC(terminal.number());
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_EQ(server.calls(), (std::vector<std::string>{"exportEnable 1", "exportEnable 2"}));
}

TEST_F(CtrlCTest, EndsAUtilityThatNobodySitsAt) {
  const Control::Descriptor null(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  const int status = statusAfterCtrlC(null.number());
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGINT) << status;
}

// Calls ahead.

class ReadAheadTest : public ServiceProxyTest {
 protected:
  void holdExports(std::uint32_t count) {
    server.onThread([&] {
      server.service().exports.clear();
      for (std::uint32_t id = 1; id <= count; ++id) server.service().exports.push_back(ExportId{id});
    });
  }

  std::vector<ExportID> list() {
    std::vector<ExportID> ids;
    EXPECT_TRUE(proxy->exportList(ids));
    return ids;
  }

  void expectInfo(ExportID id) {
    const auto info = proxy->exportInfo(id);
    ASSERT_TRUE(info.has_value()) << Error::get();
    ASSERT_EQ(info->id, id);
  }

  void expectClients(ExportID id) {
    std::vector<Types::ExportClientInfo> clients;
    ASSERT_TRUE(proxy->exportGetClients(id, clients));
    ASSERT_EQ(clients.size(), 2U);
  }

  std::size_t callsSoFar() { return server.calls().size(); }
};

TEST_F(ReadAheadTest, AListingAsksForEachRecordOnceAndInOrder) {
  holdExports(1000);
  const auto ids = list();
  for (const ExportID id : ids) expectInfo(id);
  for (const ExportID id : ids) expectClients(id);
  const auto calls = server.calls();
  ASSERT_EQ(calls.size(), 2001U);
  for (std::size_t index = 0; index < ids.size(); ++index) {
    const std::string number = std::to_string(index + 1);
    ASSERT_EQ(calls[1 + index], "exportInfo " + number);
    ASSERT_EQ(calls[1001 + index], "exportGetClients " + number);
  }
}

TEST_F(ReadAheadTest, AListingOfImportsAsksForEachRecordOnceAndInOrder) {
  server.onThread([&] {
    server.service().imports.clear();
    for (std::uint32_t id = 1; id <= 1000; ++id) server.service().imports.push_back(Control::ImportId{id});
  });
  std::vector<ImportID> ids;
  ASSERT_TRUE(proxy->importList(ids));
  for (const ImportID id : ids) {
    const auto info = proxy->importInfo(id);
    ASSERT_TRUE(info.has_value()) << Error::get();
    ASSERT_EQ(info->id, id);
  }
  const auto calls = server.calls();
  ASSERT_EQ(calls.size(), 1001U);
  for (std::size_t index = 0; index < ids.size(); ++index) {
    ASSERT_EQ(calls[1 + index], "importInfo " + std::to_string(index + 1));
  }
}

TEST_F(ReadAheadTest, TheListAloneAsksForNothingMore) {
  holdExports(10);
  list();
  EXPECT_EQ(callsSoFar(), 1U);
}

TEST_F(ReadAheadTest, AnOperationInTheMiddleGetsItsOwnAnswerAndALaterOneNoOldOne) {
  holdExports(500);
  const auto ids = list();
  for (std::size_t index = 0; index < 100; ++index) expectInfo(ids[index]);
  EXPECT_TRUE(proxy->exportDisable(ids[100], false));
  const std::size_t before = callsSoFar();
  expectInfo(ids[100]);
  EXPECT_EQ(server.calls().at(before), "exportInfo 101") << "asked again, after the change";
}

TEST_F(ReadAheadTest, AnyOrderOfOperationsGetsTheRightAnswers) {
  holdExports(300);
  const auto ids = list();
  for (const std::size_t index : {0U, 1U, 5U, 2U, 299U, 3U}) expectInfo(ids[index]);
  for (const std::size_t index : {0U, 1U, 2U}) {
    expectInfo(ids[index]);
    expectClients(ids[index]);
  }
  list();
  expectInfo(ids[0]);
  list();
  expectClients(ids[7]);
  for (const ExportID id : ids) expectInfo(id);
}

TEST_F(ReadAheadTest, RecordsThatCannotBeHadAreLeftOut) {
  holdExports(200);
  const auto ids = list();
  server.onThread([&] { server.service().failure = Failure{FailureCode::noSuchExport, "gone"}; });
  for (const ExportID id : ids) {
    ASSERT_FALSE(proxy->exportInfo(id).has_value());
    ASSERT_EQ(Error::get(), static_cast<std::uint32_t>(FailureCode::noSuchExport));
  }
}

TEST_F(ReadAheadTest, AServiceThatEndsInTheMiddleIsAskedAgain) {
  holdExports(1000);
  const auto ids = list();
  for (std::size_t index = 0; index < 300; ++index) expectInfo(ids[index]);
  server.stop();
  server.start();
  for (std::size_t index = 300; index < 1000; ++index) expectInfo(ids[index]);
}

TEST_F(ReadAheadTest, OldAnswersAreNotGivenOut) {
  holdExports(100);
  const auto ids = list();
  expectInfo(ids[0]);
  while (callsSoFar() < 101) std::this_thread::yield();
  std::this_thread::sleep_for(600ms);  // the age is what is tested
  expectInfo(ids[1]);
  EXPECT_EQ(server.calls().back(), "exportInfo 2");
}

}  // namespace
}  // namespace Host
