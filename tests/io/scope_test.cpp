#include "nbdd/io/scope.h"

#include <gtest/gtest.h>

#include <string>

#include "nbdd/io/signal.h"
#include "tests/io/run_task.h"

namespace Nbdd::Io {
namespace {

Task<int> seven() { co_return 7; }

Task<int> sum(int count) {
  int total = 0;
  for (int index = 0; index < count; ++index) {
    Task<int> part = seven();
    const int value = co_await part;
    total += value;
  }
  co_return total;
}

TEST(Task, YieldsItsValueToItsAwaiter) {
  EventLoop loop;
  EXPECT_EQ(runTask(loop, sum(6)), 42);
}

TEST(Task, RunsNothingBeforeItIsAwaited) {
  bool ran = false;
  struct Lazy {
    static Task<void> run(bool& flag) {
      flag = true;
      co_return;
    }
  };
  {
    const Task<void> never = Lazy::run(ran);
  }
  EXPECT_FALSE(ran);
}

Task<void> waitThenAppend(Signal& signal, std::string& order, char letter) {
  Signal::Waiting waiting = signal.wait();
  co_await waiting;
  order += letter;
}

Task<int> joinThenAppend(Scope& scope, std::string& order) {
  Scope::Joined joined = scope.join();
  co_await joined;
  order += 'j';
  co_return 0;
}

TEST(Scope, IsJoinedWhenTheLastTaskHasEnded) {
  EventLoop loop;
  std::string order;
  Signal first(loop);
  Signal second(loop);
  Scope scope;
  scope.spawn(waitThenAppend(first, order, 'a'));
  scope.spawn(waitThenAppend(second, order, 'b'));
  EXPECT_EQ(scope.running(), 2U);
  loop.post([&] { second.notify(); });
  loop.post([&] { first.notify(); });
  runTask(loop, joinThenAppend(scope, order));
  EXPECT_EQ(order, "baj");
  EXPECT_EQ(scope.running(), 0U);
}

TEST(Scope, JoinsAtOnceWhenNothingRuns) {
  EventLoop loop;
  std::string order;
  Scope scope;
  runTask(loop, joinThenAppend(scope, order));
  EXPECT_EQ(order, "j");
}

TEST(Scope, PassesTheWishToStopOn) {
  Scope scope;
  const std::stop_token token = scope.stopToken();
  EXPECT_FALSE(token.stop_requested());
  scope.requestStop();
  EXPECT_TRUE(token.stop_requested());
  EXPECT_TRUE(scope.stopRequested());
}

TEST(ScopeDeathTest, MustNotEndBeforeItsTasks) {
  EXPECT_DEATH(
      {
        EventLoop loop;
        std::string order;
        Signal signal(loop);
        Scope scope;
        scope.spawn(waitThenAppend(signal, order, 'a'));
      },
      "");
}

TEST(Signal, ResumesAtTheEndOfTheTurnAndNotInsideNotify) {
  EventLoop loop;
  std::string order;
  Signal signal(loop);
  Scope scope;
  scope.spawn(waitThenAppend(signal, order, 'b'));
  loop.post([&] {
    signal.notify();
    order += 'a';
  });
  runTask(loop, joinThenAppend(scope, order));
  EXPECT_EQ(order, "abj");
}

}  // namespace
}  // namespace Nbdd::Io
