#include "server/variant_access.h"

#include <gtest/gtest.h>

#include "shell/tear_down.h"
#include "tests/support/scripted_platform.h"
#include "tests/utility/variants.h"

using Support::list;
using Support::number;
using Support::Platform;

TEST(EntryAt, GivesTheEntriesInOrder) {
  Platform platform;
  const auto variant = list({number("a", 1), number("b", 2)});
  EXPECT_EQ(&Server::entryAt(variant, 0), &variant.entry(0));
  EXPECT_EQ(&Server::entryAt(variant, 1), &variant.entry(1));
  EXPECT_EQ(platform.journal, "");
}

TEST(EntryAt, RaisesTheFaultBehindTheLastEntry) {
  Platform platform;
  const auto variant = list({number("a", 1)});
  static_cast<void>(Server::entryAt(variant, 1));
  static_cast<void>(Server::entryAt(variant, 0xFFFFFFFFFFFFFFFF));
  static_cast<void>(Server::entryAt({}, 0));
  EXPECT_EQ(platform.journal, "{raiseFault}{raiseFault}{raiseFault}");
  Shell::runTearDown();
}

TEST(EntryAt, GoesOnWithOneDefaultEntryUntilTheTearDown) {
  Platform platform;
  platform.traceTearDown();
  const auto variant = list({number("a", 1)});
  static_cast<void>(Server::entryAt(variant, 0));
  EXPECT_EQ(platform.journal, "") << "nothing is registered before it is needed";
  const auto& entry = Server::entryAt(variant, 7);
  EXPECT_EQ(&Server::entryAt({}, 0), &entry);
  EXPECT_EQ(platform.journal, "{raiseFault}{lock}{unlock}{raiseFault}") << "registered once";
  EXPECT_EQ(entry.type, Support::VariantType::Empty);
  EXPECT_EQ(entry.number, 0U);
  EXPECT_FALSE(entry.text);
  EXPECT_FALSE(entry.binary);
  EXPECT_EQ(entry.nested.count(), 0U);
  ASSERT_TRUE(entry.name);
  EXPECT_TRUE(entry.name->isEmpty());
  platform.journal.clear();
  Shell::runTearDown();
  EXPECT_EQ(platform.journal, "{lock}{free}{unlock}{lock}{unlock}");
}

TEST(EntryAt, ReleasesTheDefaultEntryAtTheTearDownAndMakesItAnewAfterIt) {
  Platform platform;
  const auto name = Server::entryAt({}, 0).name;
  const auto type = Server::entryAt({}, 0).type;
  Shell::runTearDown();
  platform.traceTearDown();
  platform.journal.clear();
  const auto& again = Server::entryAt({}, 0);
  EXPECT_EQ(platform.journal, "{raiseFault}{lock}{unlock}") << "it had been released";
  EXPECT_EQ(again.type, type);
  EXPECT_TRUE(again.name->equals(name));
  Shell::runTearDown();
}

TEST(EntryAt, ReleasesTheDefaultEntryWhenItsTurnHasCome) {
  Platform platform;
  Shell::registerTearDown([] { Platform::current().record("older"); });
  static_cast<void>(Server::entryAt({}, 0));
  Shell::registerTearDown([] { Platform::current().record("newer"); });
  platform.traceTearDown();
  platform.journal.clear();
  Shell::runTearDown();
  EXPECT_EQ(platform.journal,
            "{lock}{free}{newer}{unlock}"
            "{lock}{free}{unlock}"
            "{lock}{free}{older}{unlock}"
            "{lock}{unlock}");
}
