#include "nbdd/server/memory_budget.h"

#include <gtest/gtest.h>

#include <string>

#include "nbdd/io/scope.h"

namespace Nbdd {
namespace {

Io::Task<void> take(MemoryBudget& budget, std::size_t bytes, MemoryBudget::Share& share, std::string& order,
                    char letter) {
  MemoryBudget::Waiting waiting = budget.take(bytes, &share);
  share = co_await waiting;
  order += letter;
}

TEST(MemoryBudget, ServesWhoWaitsInOrder) {
  Io::EventLoop loop;
  MemoryBudget budget(loop, 100);
  std::string order;
  MemoryBudget::Share first;
  MemoryBudget::Share large;
  MemoryBudget::Share small;
  Io::Scope scope;
  scope.spawn(take(budget, 60, first, order, 'a'));
  scope.spawn(take(budget, 80, large, order, 'b'));
  scope.spawn(take(budget, 10, small, order, 'c'));  // would fit, but is not first in line
  EXPECT_EQ(order, "a");
  loop.post([&] { first = {}; });
  loop.post([&] { loop.stop(); });
  loop.run();
  EXPECT_EQ(order, "abc");
}

TEST(MemoryBudget, LetsWaitersGoEmptyHandedWhenTheyAreCancelled) {
  Io::EventLoop loop;
  MemoryBudget budget(loop, 100);
  std::string order;
  MemoryBudget::Share first;
  MemoryBudget::Share large;
  MemoryBudget::Share small;
  Io::Scope scope;
  scope.spawn(take(budget, 60, first, order, 'a'));
  scope.spawn(take(budget, 80, large, order, 'b'));
  scope.spawn(take(budget, 10, small, order, 'c'));
  EXPECT_TRUE(first.contended());
  loop.post([&] { budget.cancel(&large); });
  loop.post([&] { loop.stop(); });
  loop.run();
  EXPECT_EQ(order, "abc");
  EXPECT_FALSE(large);
  EXPECT_TRUE(small);
  EXPECT_FALSE(first.contended());
}

TEST(MemoryBudget, AsksForNoMoreThanThereIs) {
  Io::EventLoop loop;
  MemoryBudget budget(loop, 100);
  std::string order;
  MemoryBudget::Share all;
  Io::Scope scope;
  scope.spawn(take(budget, 1000, all, order, 'a'));
  EXPECT_EQ(order, "a");
}

}  // namespace
}  // namespace Nbdd
