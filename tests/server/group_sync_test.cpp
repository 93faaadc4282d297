#include <gtest/gtest.h>

#include <vector>

#include "nbdd/exports/storage.h"

namespace Nbdd {
namespace {

/// What each asker was told, -1 while it waits.
struct Askers {
  GroupSync sync;
  std::vector<int> told;

  bool ask() {
    const std::size_t index = told.size();
    told.push_back(-1);
    return sync.join([this, index](int error) { told[index] = error; });
  }
};

TEST(GroupSync, TheFirstToAskRunsTheSync) {
  Askers askers;
  EXPECT_TRUE(askers.ask());
  EXPECT_EQ(askers.told, std::vector<int>({-1}));
  EXPECT_FALSE(askers.sync.finish(0));
  EXPECT_EQ(askers.told, std::vector<int>({0}));
}

// Their writes may have come after the running sync began, so it says nothing about them.
TEST(GroupSync, WhoAsksMeanwhileIsServedByTheNextSyncTogether) {
  Askers askers;
  EXPECT_TRUE(askers.ask());
  EXPECT_FALSE(askers.ask());
  EXPECT_FALSE(askers.ask());
  EXPECT_TRUE(askers.sync.finish(0));
  EXPECT_EQ(askers.told, std::vector<int>({0, -1, -1}));
  EXPECT_FALSE(askers.sync.finish(0));
  EXPECT_EQ(askers.told, std::vector<int>({0, 0, 0}));
}

TEST(GroupSync, AnErrorReachesThoseThatTheSyncCovered) {
  Askers askers;
  EXPECT_TRUE(askers.ask());
  EXPECT_FALSE(askers.ask());
  EXPECT_TRUE(askers.sync.finish(5));
  EXPECT_EQ(askers.told, std::vector<int>({5, -1}));
}

TEST(GroupSync, StartsAnewAfterARest) {
  Askers askers;
  EXPECT_TRUE(askers.ask());
  EXPECT_FALSE(askers.sync.finish(0));
  EXPECT_TRUE(askers.ask());
  EXPECT_FALSE(askers.sync.finish(28));
  EXPECT_EQ(askers.told, std::vector<int>({0, 28}));
}

OpenNode emptyNode() { return {}; }

// Only one of their syncs is told of a lost write.
TEST(StorageSync, TwoStoragesOfOneNodeSyncAndFailTogether) {
  Storage old(emptyNode());
  Storage next(emptyNode(), &old);
  EXPECT_TRUE(old.sync().join([](int) {}));
  EXPECT_FALSE(next.sync().join([](int) {}));
  old.fail();
  EXPECT_TRUE(next.failed());
}

TEST(StorageSync, AFailureOfThePastIsNotInherited) {
  Storage old(emptyNode());
  old.fail();
  EXPECT_FALSE(Storage(emptyNode(), &old).failed());
}

}  // namespace
}  // namespace Nbdd
