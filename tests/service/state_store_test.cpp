#include "nbdd/state/state_store.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include "nbdd/exports/identity.h"
#include "tests/support/service_process.h"

namespace Nbdd {
namespace {

using Control::FailureCode;
using ::Testing::readText;
using ::Testing::TemporaryDirectory;

SavedState stateWith(std::uint64_t nextId) {
  SavedState state;
  state.serverUuid = "9e31b2fa-b115-47e9-8c62-81e89028abf0";
  state.nextExportId = nextId;
  return state;
}

class StateStoreTest : public ::testing::Test {
 protected:
  TemporaryDirectory directory;
  StateStore store{directory.path()};
};

TEST_F(StateStoreTest, WhatWasNeverSavedIsNothing) {
  const auto loaded = store.load();
  ASSERT_TRUE(loaded.has_value());
  EXPECT_EQ(*loaded, std::nullopt);
}

TEST_F(StateStoreTest, WhatIsSavedIsLoadedByTheNext) {
  ASSERT_TRUE(store.save(stateWith(5)).has_value());
  ASSERT_TRUE(store.save(stateWith(6)).has_value());
  StateStore next(directory.path());
  EXPECT_EQ(next.load().value(), std::optional(stateWith(6)));
  const auto entries = std::distance(std::filesystem::directory_iterator(directory.path()), {});
  EXPECT_EQ(entries, 1) << "something was left behind";
}

TEST_F(StateStoreTest, TheFileIsItsOwnersAlone) {
  ASSERT_TRUE(store.save(stateWith(5)).has_value());
  EXPECT_EQ(std::filesystem::status(store.file()).permissions(), std::filesystem::perms(0600));
}

TEST_F(StateStoreTest, ADamagedFileIsRefusedInOneSentenceAndKept) {
  const std::string damaged = printState(stateWith(5)).substr(0, 40);
  directory.write("state.json", damaged);
  const auto loaded = store.load();
  ASSERT_FALSE(loaded.has_value());
  EXPECT_NE(loaded.error().find(store.file().native()), std::string::npos);
  EXPECT_EQ(loaded.error().find('\n'), std::string::npos);
  EXPECT_EQ(readText(store.file()), damaged);
}

TEST_F(StateStoreTest, WhatALeftoverHoldsDoesNotMatter) {
  ASSERT_TRUE(store.save(stateWith(5)).has_value());
  directory.write("state.json.new", "half a te");
  EXPECT_EQ(store.load().value(), std::optional(stateWith(5)));
  ASSERT_TRUE(store.save(stateWith(6)).has_value());
  EXPECT_EQ(store.load().value(), std::optional(stateWith(6)));
}

TEST_F(StateStoreTest, WithoutAPlaceToWriteTheOldStateHolds) {
  ASSERT_TRUE(store.save(stateWith(5)).has_value());
  std::filesystem::create_directory(directory.path() / "state.json.new");
  const auto saved = store.save(stateWith(6));
  ASSERT_FALSE(saved.has_value());
  EXPECT_EQ(saved.error().code, FailureCode::stateNotSaved);
  EXPECT_EQ(store.load().value(), std::optional(stateWith(5)));
  std::filesystem::remove(directory.path() / "state.json.new");
  EXPECT_TRUE(store.save(stateWith(6)).has_value());
}

TEST_F(StateStoreTest, AFullDiskLeavesTheOldState) {
  ASSERT_TRUE(store.save(stateWith(5)).has_value());
  ::signal(SIGXFSZ, SIG_IGN);
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &before), 0);
  rlimit small = before;
  small.rlim_cur = 16;
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
  const auto saved = store.save(stateWith(6));
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &before), 0);
  ASSERT_FALSE(saved.has_value());
  EXPECT_EQ(saved.error().code, FailureCode::stateNotSaved);
  EXPECT_EQ(store.load().value(), std::optional(stateWith(5)));
  EXPECT_FALSE(std::filesystem::exists(directory.path() / "state.json.new"));
}

TEST_F(StateStoreTest, AFifoInTheFilesPlaceKeepsNobodyWaiting) {
  ASSERT_EQ(::mkfifo(store.file().c_str(), 0600), 0);
  EXPECT_FALSE(store.load().has_value());
}

TEST(InstanceLock, OnlyOneHoldsIt) {
  const TemporaryDirectory directory;
  const std::filesystem::path file = directory.path() / "lock";
  {
    const auto first = InstanceLock::take(file);
    ASSERT_TRUE(first.has_value());
    const auto second = InstanceLock::take(file);
    ASSERT_FALSE(second.has_value());
    EXPECT_EQ(second.error(), EWOULDBLOCK);
  }
  EXPECT_TRUE(InstanceLock::take(file).has_value());
}

}  // namespace
}  // namespace Nbdd
