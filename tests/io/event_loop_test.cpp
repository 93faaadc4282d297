#include "nbdd/io/event_loop.h"

#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <array>
#include <string>
#include <thread>
#include <vector>

namespace Nbdd::Io {
namespace {

TEST(EventLoop, RunsWhatWasPostedBeforeTheStop) {
  EventLoop loop;
  int ran = 0;
  loop.post([&] { ++ran; });
  loop.post([&] {
    loop.stop();
    loop.post([&] { ++ran; });
  });
  loop.run();
  EXPECT_EQ(ran, 2);
}

TEST(EventLoop, TakesPostsFromManyThreads) {
  EventLoop loop;
  constexpr int threads = 4;
  constexpr int posts = 1000;
  int ran = 0;  // touched on the loop's thread alone
  std::vector<std::jthread> posters;
  for (int thread = 0; thread < threads; ++thread) {
    posters.emplace_back([&] {
      for (int post = 0; post < posts; ++post) {
        loop.post([&] {
          if (++ran == threads * posts) {
            loop.stop();
          }
        });
      }
    });
  }
  loop.run();
  EXPECT_EQ(ran, threads * posts);
}

TEST(EventLoop, DefersToTheEndOfTheTurn) {
  EventLoop loop;
  std::string order;
  loop.post([&] {
    loop.defer([&] {
      order += 'c';
      loop.stop();
    });
    order += 'a';
  });
  loop.post([&] { order += 'b'; });
  loop.run();
  EXPECT_EQ(order, "abc");
}

// An answer that leaves at the end of a turn may bring a request, which leaves with it. But whoever defers
// himself again and again must not keep the others waiting.
TEST(EventLoop, DefersWhatWasDeferredOnceToTheSameTurn) {
  EventLoop loop;
  std::string order;
  const FileDescriptor ready(::eventfd(1, EFD_CLOEXEC | EFD_NONBLOCK));
  struct Handler final : EventHandler {
    EventLoop& loop;
    std::string& order;
    Handler(EventLoop& of, std::string& into) : loop(of), order(into) {}
    void onEvents(std::uint32_t /*events*/) override { order += 'e'; }
  } handler(loop, order);
  loop.post([&] {
    ASSERT_EQ(loop.watch(ready.number(), EPOLLIN | EPOLLET, handler), 0);
    loop.defer([&] {
      order += '1';
      loop.defer([&] {
        order += '2';
        loop.defer([&] {
          order += '3';
          loop.stop();
        });
      });
    });
  });
  loop.run();
  EXPECT_EQ(order, "12e3");
  loop.unwatch(ready.number(), handler);
}

TEST(EventLoop, YieldsToTheOthersOfTheNextTurn) {
  EventLoop loop;
  std::string order;
  loop.post([&] {
    loop.yield([&] {
      order += 'a';
      loop.yield([&] {
        order += 'c';
        loop.stop();
      });
      loop.post([&] { order += 'b'; });
    });
  });
  loop.run();
  EXPECT_EQ(order, "abc");
}

TEST(EventLoop, FiresTimersInOrderAndNotTheCancelledOnes) {
  using std::chrono::milliseconds;
  EventLoop loop;
  std::string order;
  Timer last(loop, [&] { loop.stop(); });
  Timer first(loop, [&] { order += '1'; });
  Timer second(loop, [&] { order += '2'; });
  Timer cancelled(loop, [&] { order += 'x'; });
  last.start(milliseconds(30));
  second.start(milliseconds(20));
  cancelled.start(milliseconds(15));
  first.start(milliseconds(10));
  cancelled.cancel();
  {
    Timer destroyed(loop, [&] { order += 'y'; });
    destroyed.start(milliseconds(5));
  }
  EXPECT_TRUE(first.running());
  loop.run();
  EXPECT_EQ(order, "12");
  EXPECT_FALSE(first.running());
}

TEST(EventLoop, APausedTimerStandsStill) {
  EventLoop loop;
  std::string order;
  Timer paused(loop, [&] {
    order += 'p';
    loop.stop();
  });
  Timer other(loop, [&] {
    order += 'o';
    paused.resume();
  });
  paused.resume();  // has no effect
  EXPECT_FALSE(paused.running());
  paused.start(std::chrono::nanoseconds(0));
  paused.pause();
  paused.pause();
  EXPECT_FALSE(paused.running());
  other.start(std::chrono::milliseconds(1));
  loop.run();
  EXPECT_EQ(order, "op");
}

TEST(EventLoop, APausedTimerThatIsStartedOrCancelledIsNotResumed) {
  EventLoop loop;
  bool fired = false;
  Timer timer(loop, [&] { fired = true; });
  Timer last(loop, [&] { loop.stop(); });
  timer.start(std::chrono::nanoseconds(0));
  timer.pause();
  timer.start(std::chrono::hours(1));
  timer.resume();
  last.start(std::chrono::nanoseconds(0));
  loop.run();
  EXPECT_TRUE(timer.running());
  timer.pause();
  timer.cancel();
  timer.resume();
  EXPECT_FALSE(timer.running());
  EXPECT_FALSE(fired);
}

class Handler final : public EventHandler {
 public:
  explicit Handler(std::function<void()> action) : action_(std::move(action)) {}
  void onEvents(std::uint32_t) override { action_(); }

 private:
  std::function<void()> action_;
};

// Both descriptors become ready in one turn; whoever is called first takes the other one out.
TEST(EventLoop, DoesNotCallAHandlerThatIsNoLongerWatched) {
  EventLoop loop;
  std::array<int, 2> one{};
  std::array<int, 2> other{};
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, one.data()), 0);
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, other.data()), 0);
  const std::array<FileDescriptor, 4> owners{FileDescriptor(one[0]), FileDescriptor(one[1]),
                                             FileDescriptor(other[0]), FileDescriptor(other[1])};
  int calls = 0;
  Handler* second = nullptr;
  Handler first([&] {
    ++calls;
    loop.unwatch(other[0], *second);
    loop.stop();
  });
  Handler secondHandler([&] {
    ++calls;
    loop.unwatch(one[0], first);
    loop.stop();
  });
  second = &secondHandler;
  ASSERT_EQ(loop.watch(one[0], EPOLLIN, first), 0);
  ASSERT_EQ(loop.watch(other[0], EPOLLIN, secondHandler), 0);
  ASSERT_EQ(::send(one[1], "x", 1, 0), 1);
  ASSERT_EQ(::send(other[1], "x", 1, 0), 1);
  loop.run();
  EXPECT_EQ(calls, 1);
}

TEST(EventLoop, SaysWhyADescriptorCannotBeWatched) {
  EventLoop loop;
  Handler handler([] {});
  EXPECT_EQ(loop.watch(-1, EPOLLIN, handler), EBADF);
}

}  // namespace
}  // namespace Nbdd::Io
