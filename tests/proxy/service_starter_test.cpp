#include "host/service_starter.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <thread>

#include "host/service_proxy.h"
#include "platform/error.h"
#include "tests/control/running_server.h"

namespace Host {
namespace {

using namespace std::chrono_literals;
using Control::FailureCode;
using Clock = Control::Client::Clock;
namespace Methods = Control::Methods;

class ServiceStarterTest : public ::testing::Test {
 protected:
  ServiceStarterTest() { ::setenv("NBDD_RUNTIME_DIR", directory.path().c_str(), 1); }

  /// Ends the fake service if there is one, so that it does not outlive its directory.
  ~ServiceStarterTest() override {
    auto client = Control::Client::connect(location.socket, Clock::now() + 1s);
    if (client) std::ignore = client->call(Methods::serverStop);
    ::unsetenv("NBDD_RUNTIME_DIR");
    ::unsetenv("FAKE_NBDD");
  }

  static void behave(const char* mode) { ::setenv("FAKE_NBDD", mode, 1); }

  struct Process {
    pid_t self, parent, session;
  };
  std::vector<Process> started() const {
    std::ifstream file(directory.path() + "/started");
    std::vector<Process> processes;
    for (Process process{}; file >> process.self >> process.parent >> process.session;)
      processes.push_back(process);
    return processes;
  }

  FailureCode codeWithin(Clock::duration time) const {
    const auto client = connectToService(location, Clock::now() + time);
    return client ? FailureCode{} : client.error().code;
  }

  Control::Testing::TemporaryDirectory directory;
  ServiceLocation location{.socket = directory.path() + "/org.talvek.NBD",
                           .programs = {"/nowhere", FAKE_NBDD_PROGRAM}};
};

TEST_F(ServiceStarterTest, StartsWhatDoesNotRunAndUsesWhatDoes) {
  behave("serve");
  for (int count = 0; count < 3; ++count) {
    auto client = connectToService(location, Clock::now() + 30s);
    ASSERT_TRUE(client.has_value()) << client.error().message;
    EXPECT_TRUE(client->call(Methods::exportList).has_value());
  }
  EXPECT_EQ(started().size(), 1U);
}

TEST_F(ServiceStarterTest, TheServiceOutlivesUsInASessionOfItsOwn) {
  behave("serve");
  const pid_t starter = ::fork();
  if (starter == 0) ::_exit(connectToService(location, Clock::now() + 30s).has_value() ? 0 : 1);
  int status = 0;
  ASSERT_EQ(::waitpid(starter, &status, 0), starter);
  ASSERT_EQ(status, 0);
  auto client = Control::Client::connect(location.socket, Clock::now() + 1s);
  ASSERT_TRUE(client.has_value());
  EXPECT_TRUE(client->call(Methods::exportList).has_value());
  ASSERT_EQ(started().size(), 1U);
  EXPECT_EQ(started()[0].session, started()[0].self);
}

TEST_F(ServiceStarterTest, LeavesNoChildrenBehind) {
  behave("serve");
  ASSERT_EQ(codeWithin(30s), FailureCode{});
  EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
}

TEST_F(ServiceStarterTest, TwoWhoStartAtOnceGetTheSameService) {
  behave("serve");
  std::vector<pid_t> starters;
  ::testing::internal::CaptureStderr();
  for (int count = 0; count < 8; ++count) {
    const pid_t starter = ::fork();
    if (starter == 0) {
      auto client = connectToService(location, Clock::now() + 30s);
      ::_exit(client && client->call(Methods::exportList) ? 0 : 1);
    }
    starters.push_back(starter);
  }
  for (const pid_t starter : starters) {
    int status = 0;
    ASSERT_EQ(::waitpid(starter, &status, 0), starter);
    EXPECT_EQ(status, 0);
  }
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "") << "a race that was lost is no news";
  EXPECT_EQ(started().size(), 1U);
}

TEST_F(ServiceStarterTest, TakesThePlaceOfOneThatWasKilled) {
  behave("serve");
  ASSERT_TRUE(Nbdd::listenOnControlSocket(location.socket, {}).has_value());  // and nobody listens any more
  EXPECT_EQ(codeWithin(30s), FailureCode{});
  EXPECT_EQ(started().size(), 1U);
}

TEST_F(ServiceStarterTest, SaysWhenItCannotStart) {
  behave("fail");
  ::testing::internal::CaptureStderr();
  const auto before = Clock::now();
  EXPECT_EQ(codeWithin(30s), FailureCode::serviceStartFailed);
  EXPECT_LT(Clock::now() - before, 20s) << "waited although the end was known";
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "fake nbdd: the port is taken: choose another one\n");
}

TEST_F(ServiceStarterTest, WaitsNoLongerThanItMay) {
  behave("hang");
  const auto before = Clock::now();
  EXPECT_EQ(codeWithin(200ms), FailureCode::timeout);
  EXPECT_GE(Clock::now() - before, 200ms);
  EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1) << "a child is left";
}

TEST_F(ServiceStarterTest, ALockThatNobodyServesBehindIsWaitedForAsLongAsItMay) {
  behave("locked");
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(codeWithin(2s), FailureCode::timeout);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "fake nbdd: another one runs\n") << "told once";
}

TEST_F(ServiceStarterTest, WhatTwoAttemptsSayIsToldOnce) {
  behave("stuck");
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(codeWithin(2s), FailureCode::timeout);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "fake nbdd: another one runs\n");
}

TEST_F(ServiceStarterTest, WithoutAProgramItIsUnavailable) {
  location.programs = {"/nowhere"};
  EXPECT_EQ(codeWithin(30s), FailureCode::serviceUnavailable);
}

TEST_F(ServiceStarterTest, CreateGivesTheCodeOrTheProxy) {
  ::unsetenv("PATH");
  behave("serve");
  // The fake is not called nbdd, so create finds none or the real one; what it finds must not be started
  // here.
  auto client = connectToService(location, Clock::now() + 30s);
  ASSERT_TRUE(client.has_value());
  const auto proxy = Services::NBD::Client::Service::create(1000);
  ASSERT_TRUE(static_cast<bool>(proxy));
  EXPECT_TRUE(proxy->exportEnable(Records::Types::ExportID{1}));
}

TEST_F(ServiceStarterTest, AServiceThatEndedIsStartedAgainByTheNextOperation) {
  behave("serve");
  const auto proxy = makeRef<ServiceProxy>(location, 30s);
  ASSERT_TRUE(proxy->connect().has_value());
  for (int count = 1; count <= 3; ++count) {
    EXPECT_TRUE(proxy->exportEnable(Records::Types::ExportID{1})) << Error::get();
    EXPECT_TRUE(proxy->serverStop()) << Error::get();
    // It ends now. Connections are refused or reset until the next one is started.
    const auto ended = Clock::now() + 20s;
    while (Control::Client::connect(location.socket, Clock::now() + 1s) && Clock::now() < ended) {
    }
    EXPECT_EQ(started().size(), static_cast<std::size_t>(count));
  }
}

}  // namespace
}  // namespace Host
