#include "nbdd/exports/registry.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <rapidcheck.h>
#include <sys/file.h>

#include <map>
#include <set>

#include "nbdd/exports/identity.h"
#include "tests/support/service_process.h"

namespace Nbdd {
namespace {

using Control::ExportId;
using Control::ExportReason;
using Control::ExportState;
using Control::FailureCode;
using ::Testing::TemporaryDirectory;

/// A server without clients of its own: the test says who is connected.
class FakePublisher final : public ExportPublisher {
 public:
  void publish(Publication publication) override {
    ASSERT_FALSE(published.contains(publication.id));
    const ExportId id = publication.id;
    published.emplace(id, std::move(publication));
  }
  void withdraw(ExportId id) override { published.erase(id); }
  void endSessions(ExportId id, std::move_only_function<void()> done) override {
    ending[id] = std::move(done);
  }
  std::vector<Control::ExportClientInfo> clients(ExportId id) const override {
    return std::vector<Control::ExportClientInfo>(clientCount(id));
  }
  std::size_t clientCount(ExportId id) const override {
    const auto found = counts.find(id);
    return found == counts.end() ? 0 : found->second;
  }

  std::map<ExportId, Publication> published;
  std::map<ExportId, std::size_t> counts;
  std::map<ExportId, std::move_only_function<void()>> ending;
};

class RegistryTest : public ::testing::Test {
 protected:
  Control::Result<void> save() {
    if (refuseToSave) return std::unexpected(Control::Failure{FailureCode::stateNotSaved, "refused"});
    ++saves;
    registry.describe(saved);
    return {};
  }

  std::string file(const std::string& name, std::uintmax_t size = 4096) {
    return directory.sparse(name, size);
  }

  ExportId add(const std::string& node, bool readOnly = false) {
    Control::ExportDescriptor descriptor;
    descriptor.node = node;
    if (readOnly) descriptor.flags.set(Control::ExportFlag::readOnly);
    const auto id = registry.add(descriptor);
    EXPECT_TRUE(id.has_value()) << id.error().message;
    return id.value_or(ExportId{});
  }

  FailureCode codeOfAdding(const std::string& node) {
    Control::ExportDescriptor descriptor;
    descriptor.node = node;
    const auto id = registry.add(descriptor);
    return id ? FailureCode{} : id.error().code;
  }

  ExportState state(ExportId id) const { return registry.info(id)->state; }

  TemporaryDirectory directory;
  FakePublisher publisher;
  SavedState saved;
  int saves = 0;
  bool refuseToSave = false;
  ExportRegistry registry{publisher, [this] { return save(); }};
};

template <class T>
FailureCode codeOf(const Control::Result<T>& result) {
  return result ? FailureCode{} : result.error().code;
}

TEST_F(RegistryTest, AnAddedExportHasNameUuidAndExactSize) {
  const ExportId id = add(file("disk.img", 1000));
  const auto info = registry.info(id);
  ASSERT_TRUE(info.has_value());
  EXPECT_EQ(info->descriptor.name, "disk.img");
  EXPECT_EQ(info->descriptor.elemCount * info->descriptor.elemSize, 1000U);
  EXPECT_EQ(info->state, ExportState::added);
  EXPECT_EQ(info->reason, std::nullopt);
  EXPECT_TRUE(isUuid(info->uuid));
  EXPECT_EQ(saves, 1);
  EXPECT_TRUE(publisher.published.empty());
}

TEST_F(RegistryTest, NamesAreMadeUnique) {
  std::filesystem::create_directories(directory.path() / "a");
  std::filesystem::create_directories(directory.path() / "b");
  EXPECT_EQ(registry.info(add(file("disk.img")))->descriptor.name, "disk.img");
  EXPECT_EQ(registry.info(add(file("a/disk.img")))->descriptor.name, "disk.img-2");
  EXPECT_EQ(registry.info(add(file("b/disk.img")))->descriptor.name, "disk.img-3");
}

TEST_F(RegistryTest, AGivenNameIsKeptOrRefused) {
  Control::ExportDescriptor descriptor;
  descriptor.node = file("one");
  descriptor.name = "chosen";
  const auto id = registry.add(descriptor);
  ASSERT_TRUE(id.has_value());
  EXPECT_EQ(registry.info(*id)->descriptor.name, "chosen");
  descriptor.node = file("two");
  EXPECT_EQ(codeOf(registry.add(descriptor)), FailureCode::nameInUse);
  for (const std::string& name : {std::string("line\nend"), std::string("\xff"), std::string(4097, 'x')}) {
    descriptor.name = name;
    EXPECT_EQ(codeOf(registry.add(descriptor)), FailureCode::invalidArgument);
  }
}

TEST_F(RegistryTest, GivenElementsMustMakeUpTheSize) {
  Control::ExportDescriptor descriptor;
  descriptor.node = file("one", 8192);
  descriptor.elemSize = 4096;
  descriptor.elemCount = 3;
  EXPECT_EQ(codeOf(registry.add(descriptor)), FailureCode::invalidArgument);
  descriptor.elemSize = 5000;
  descriptor.elemCount = 0;
  EXPECT_EQ(codeOf(registry.add(descriptor)), FailureCode::invalidArgument);
  descriptor.elemSize = 4096;
  descriptor.elemCount = 2;
  EXPECT_TRUE(registry.add(descriptor).has_value());
  EXPECT_EQ(codeOf(registry.info(ExportId{2})), FailureCode::noSuchExport);
}

TEST_F(RegistryTest, UnknownFlagsAreRefused) {
  Control::ExportDescriptor descriptor;
  descriptor.node = file("one");
  descriptor.flags = Control::Flags<Control::ExportFlag>::fromMask(2);
  EXPECT_EQ(codeOf(registry.add(descriptor)), FailureCode::invalidArgument);
}

TEST_F(RegistryTest, TheSameNodeIsExportedOnceByWhateverName) {
  const std::string node = file("disk.img");
  add(node);
  std::filesystem::create_symlink(node, directory.path() / "symbolic");
  std::filesystem::create_hard_link(node, directory.path() / "hard");
  EXPECT_EQ(codeOfAdding(node), FailureCode::nodeAlreadyExported);
  EXPECT_EQ(codeOfAdding(directory.path() / "symbolic"), FailureCode::nodeAlreadyExported);
  EXPECT_EQ(codeOfAdding(directory.path() / "hard"), FailureCode::nodeAlreadyExported);
  EXPECT_EQ(codeOfAdding(directory.path() / "." / "disk.img"), FailureCode::nodeAlreadyExported);
}

TEST_F(RegistryTest, AnEnabledNodeIsStillToldFromOneInUse) {
  const std::string node = file("disk.img");
  ASSERT_TRUE(registry.enable(add(node)).has_value());
  EXPECT_EQ(codeOfAdding(node), FailureCode::nodeAlreadyExported);
}

TEST_F(RegistryTest, AReusedInodeIsNotMistakenForAnExport) {
  const std::string first = file("first");
  const ExportId id = add(first);
  std::filesystem::remove(first);
  // On most file systems the next file gets the inode that has just become free.
  EXPECT_EQ(codeOfAdding(file("second")), FailureCode{});
  EXPECT_EQ(codeOf(registry.enable(id)), FailureCode::nodeNotFound);
}

TEST_F(RegistryTest, EnablingPublishesAndIsSavedFirst) {
  const ExportId id = add(file("disk.img"));
  ASSERT_TRUE(registry.enable(id).has_value());
  EXPECT_EQ(state(id), ExportState::enabled);
  ASSERT_TRUE(publisher.published.contains(id));
  EXPECT_EQ(publisher.published.at(id).name, "disk.img");
  EXPECT_EQ(publisher.published.at(id).storage->size(), 4096U);
  EXPECT_EQ(saved.exports.at(0).wanted, Wanted::enabled);
  const int before = saves;
  EXPECT_TRUE(registry.enable(id).has_value());
  EXPECT_EQ(saves, before);
}

TEST_F(RegistryTest, AGracefulDisableAnswersAtOnceAndEndsWithTheLastClient) {
  const ExportId id = add(file("disk.img"));
  ASSERT_TRUE(registry.enable(id).has_value());
  publisher.counts[id] = 2;
  ASSERT_TRUE(registry.disable(id).has_value());
  EXPECT_EQ(state(id), ExportState::disabling);
  EXPECT_FALSE(publisher.published.contains(id));
  EXPECT_EQ(codeOf(registry.enable(id)), FailureCode::wrongState);
  EXPECT_EQ(codeOf(registry.remove(id)), FailureCode::wrongState);
  registry.lastClientLeft(id);
  EXPECT_EQ(state(id), ExportState::disabling) << "there are clients: the news was old";
  publisher.counts[id] = 0;
  registry.lastClientLeft(id);
  EXPECT_EQ(state(id), ExportState::disabled);
  EXPECT_TRUE(registry.remove(id).has_value());
  EXPECT_EQ(codeOf(registry.info(id)), FailureCode::noSuchExport);
}

TEST_F(RegistryTest, WithoutClientsADisableIsDoneAtOnce) {
  const ExportId id = add(file("disk.img"));
  ASSERT_TRUE(registry.enable(id).has_value());
  ASSERT_TRUE(registry.disable(id).has_value());
  EXPECT_EQ(state(id), ExportState::disabled);
  EXPECT_EQ(saved.exports.at(0).wanted, Wanted::disabled);
}

TEST_F(RegistryTest, AForcedDisableAnswersWhenTheSessionsHaveEnded) {
  const ExportId id = add(file("disk.img"));
  ASSERT_TRUE(registry.enable(id).has_value());
  publisher.counts[id] = 1;
  int answers = 0;
  const auto count = [&](Control::Result<void> result) { answers += result ? 1 : 100; };
  registry.disableByForce(id, count);
  registry.disableByForce(id, count);
  EXPECT_EQ(answers, 0);
  EXPECT_EQ(state(id), ExportState::disabling);
  publisher.counts[id] = 0;
  publisher.ending.at(id)();
  EXPECT_EQ(answers, 2);
  EXPECT_EQ(state(id), ExportState::disabled);
  registry.disableByForce(id, count);
  EXPECT_EQ(answers, 3);
}

TEST_F(RegistryTest, ForceAfterAGracefulDisableEndsTheSessions) {
  const ExportId id = add(file("disk.img"));
  ASSERT_TRUE(registry.enable(id).has_value());
  publisher.counts[id] = 1;
  ASSERT_TRUE(registry.disable(id).has_value());
  bool answered = false;
  registry.disableByForce(id, [&](Control::Result<void>) { answered = true; });
  ASSERT_TRUE(publisher.ending.contains(id));
  publisher.counts[id] = 0;
  publisher.ending.at(id)();
  EXPECT_TRUE(answered);
}

TEST_F(RegistryTest, FailedStorageFailsTheExportAndWhoWaitsForIt) {
  const ExportId id = add(file("disk.img"));
  ASSERT_TRUE(registry.enable(id).has_value());
  publisher.counts[id] = 1;
  FailureCode code{};
  registry.disableByForce(id, [&](Control::Result<void> result) { code = codeOf(result); });
  registry.storageFailed(id, EIO);
  EXPECT_EQ(code, FailureCode::nodeError);
  EXPECT_EQ(state(id), ExportState::failed);
  EXPECT_EQ(registry.info(id)->reason, ExportReason::accessError);
  EXPECT_FALSE(publisher.published.contains(id));
  publisher.counts[id] = 0;
  publisher.ending.at(id)();
  EXPECT_EQ(state(id), ExportState::failed);
  ASSERT_TRUE(registry.enable(id).has_value());
  EXPECT_EQ(registry.info(id)->reason, std::nullopt);
}

TEST_F(RegistryTest, ARefusedNodeFailsTheExportWithItsReasonAndCode) {
  const std::string node = file("disk.img");
  const ExportId id = add(node);
  std::filesystem::remove(node);
  EXPECT_EQ(codeOf(registry.enable(id)), FailureCode::nodeNotFound);
  EXPECT_EQ(state(id), ExportState::failed);
  EXPECT_EQ(registry.info(id)->reason, ExportReason::accessError);
  file("disk.img", 8192);
  ASSERT_TRUE(registry.enable(id).has_value());
  EXPECT_EQ(state(id), ExportState::enabled);
  EXPECT_EQ(registry.info(id)->descriptor.elemCount, 16U);
}

TEST_F(RegistryTest, DisablingAFailedExportClearsItsReason) {
  const std::string node = file("disk.img");
  const ExportId id = add(node);
  std::filesystem::remove(node);
  EXPECT_FALSE(registry.enable(id).has_value());
  ASSERT_TRUE(registry.disable(id).has_value());
  EXPECT_EQ(state(id), ExportState::disabled);
  EXPECT_EQ(registry.info(id)->reason, std::nullopt);
  EXPECT_EQ(saved.exports.at(0).wanted, Wanted::disabled);
}

TEST_F(RegistryTest, AGrownNodeIsSeenAtTheNextEnable) {
  const std::string node = file("disk.img", 512);
  const ExportId id = add(node);
  ASSERT_TRUE(registry.enable(id).has_value());
  std::filesystem::resize_file(node, 1024);
  EXPECT_EQ(registry.info(id)->descriptor.elemCount, 1U);
  ASSERT_TRUE(registry.disable(id).has_value());
  ASSERT_TRUE(registry.enable(id).has_value());
  EXPECT_EQ(registry.info(id)->descriptor.elemCount, 2U);
  EXPECT_EQ(publisher.published.at(id).storage->size(), 1024U);
  EXPECT_EQ(saved.exports.at(0).elemCount, 2U);
}

TEST_F(RegistryTest, ANodeThatASessionStillHoldsIsEnabledAndAddedAgain) {
  const std::string node = file("disk.img");
  const ExportId id = add(node);
  ASSERT_TRUE(registry.enable(id).has_value());
  const std::shared_ptr<Storage> held = publisher.published.at(id).storage;
  ASSERT_TRUE(registry.disable(id).has_value());
  EXPECT_TRUE(registry.enable(id).has_value()) << "its own lock kept it out";
  ASSERT_TRUE(registry.disable(id).has_value());
  ASSERT_TRUE(registry.remove(id).has_value());
  EXPECT_NE(add(node), id);
}

TEST_F(RegistryTest, ANodeInUseElsewhereIsToldApart) {
  const std::string node = file("disk.img");
  const Io::FileDescriptor other(::open(node.c_str(), O_RDWR | O_CLOEXEC));
  ASSERT_EQ(::flock(other.number(), LOCK_EX), 0);
  EXPECT_EQ(codeOfAdding(node), FailureCode::nodeInUse);
}

TEST_F(RegistryTest, NothingChangesThatCannotBeSaved) {
  const std::string node = file("disk.img");
  refuseToSave = true;
  EXPECT_EQ(codeOfAdding(node), FailureCode::stateNotSaved);
  EXPECT_EQ(registry.size(), 0U);
  refuseToSave = false;
  const ExportId id = add(node);
  EXPECT_EQ(static_cast<std::uint32_t>(id), 1U);

  refuseToSave = true;
  EXPECT_EQ(codeOf(registry.enable(id)), FailureCode::stateNotSaved);
  EXPECT_EQ(state(id), ExportState::added);
  EXPECT_TRUE(publisher.published.empty());
  EXPECT_EQ(codeOf(registry.remove(id)), FailureCode::stateNotSaved);
  EXPECT_EQ(codeOfAdding(node), FailureCode::nodeAlreadyExported);

  refuseToSave = false;
  ASSERT_TRUE(registry.enable(id).has_value());
  refuseToSave = true;
  EXPECT_EQ(codeOf(registry.disable(id)), FailureCode::stateNotSaved);
  EXPECT_EQ(state(id), ExportState::enabled);
  EXPECT_TRUE(publisher.published.contains(id));
  FailureCode forced{};
  registry.disableByForce(id, [&](Control::Result<void> result) { forced = codeOf(result); });
  EXPECT_EQ(forced, FailureCode::stateNotSaved);
  EXPECT_TRUE(publisher.ending.empty());
  EXPECT_EQ(state(id), ExportState::enabled);
}

TEST_F(RegistryTest, IdsAreNeverGivenTwice) {
  const std::string node = file("disk.img");
  const ExportId first = add(node);
  ASSERT_TRUE(registry.remove(first).has_value());
  EXPECT_GT(add(node), first);
  saved.nextExportId = std::uint64_t{1} << 32;
  saved.exports.clear();
  ExportRegistry full(publisher, [] { return Control::Result<void>(); });
  full.restore(saved);
  Control::ExportDescriptor descriptor;
  descriptor.node = file("other");
  EXPECT_EQ(codeOf(full.add(descriptor)), FailureCode::limitReached);
}

TEST_F(RegistryTest, UnknownIdsAreToldSoByEveryOperation) {
  const ExportId id{7};
  EXPECT_EQ(codeOf(registry.enable(id)), FailureCode::noSuchExport);
  EXPECT_EQ(codeOf(registry.disable(id)), FailureCode::noSuchExport);
  EXPECT_EQ(codeOf(registry.remove(id)), FailureCode::noSuchExport);
  EXPECT_EQ(codeOf(registry.info(id)), FailureCode::noSuchExport);
  EXPECT_EQ(codeOf(registry.clients(id)), FailureCode::noSuchExport);
  EXPECT_EQ(codeOf(registry.statistics(id)), FailureCode::noSuchExport);
  FailureCode code{};
  registry.disableByForce(id, [&](Control::Result<void> result) { code = codeOf(result); });
  EXPECT_EQ(code, FailureCode::noSuchExport);
  registry.lastClientLeft(id);
  registry.storageFailed(id, EIO);
}

TEST_F(RegistryTest, ARestartBringsBackWhatWasAskedFor) {
  const ExportId added = add(file("added"));
  const ExportId enabled = add(file("enabled"), true);
  const ExportId disabled = add(file("disabled"));
  const std::string lost = file("lost");
  const ExportId failing = add(lost);
  for (const ExportId id : {enabled, disabled, failing}) ASSERT_TRUE(registry.enable(id).has_value());
  ASSERT_TRUE(registry.disable(disabled).has_value());
  const auto before = registry.info(enabled);
  publisher.published.clear();
  std::filesystem::remove(lost);

  ExportRegistry next(publisher, [] { return Control::Result<void>(); });
  next.restore(saved);
  EXPECT_EQ(next.info(added)->state, ExportState::added);
  EXPECT_EQ(*next.info(enabled), *before);
  EXPECT_EQ(next.info(disabled)->state, ExportState::disabled);
  EXPECT_EQ(next.info(failing)->state, ExportState::failed);
  EXPECT_EQ(next.info(failing)->reason, ExportReason::accessError);
  EXPECT_EQ(publisher.published.size(), 1U);
  SavedState again;
  next.describe(again);
  EXPECT_EQ(again.exports, saved.exports) << "what is wanted must outlive the failure";
}

// Whatever is asked in whatever order: the registry agrees with the table, the publisher with the registry,
// and the saved state with both.
TEST(RegistryProperty, AnySequenceOfEventsFollowsTheTable) {
  rc::check([] {
    TemporaryDirectory directory;
    FakePublisher publisher;
    SavedState saved;
    ExportRegistry* self = nullptr;
    ExportRegistry registry(publisher, [&] {
      self->describe(saved);
      return Control::Result<void>();
    });
    self = &registry;
    const std::string node = directory.sparse("disk.img", 512);
    Control::ExportDescriptor descriptor;
    descriptor.node = node;
    const ExportId id = *registry.add(descriptor);
    int asked = 0;
    int answered = 0;
    for (const int step : *rc::gen::container<std::vector<int>>(rc::gen::inRange(0, 7))) {
      const ExportState before = registry.info(id)->state;
      const auto follows = [&](ExportEvent event, bool success) {
        const ExportTransition* const row = findTransition(before, event);
        RC_ASSERT(row != nullptr);
        RC_ASSERT(success == (row->answer != ExportAnswer::wrongState));
      };
      switch (step) {
        case 0:
          follows(ExportEvent::enable, registry.enable(id).has_value());
          break;
        case 1:
          follows(ExportEvent::disable, registry.disable(id).has_value());
          break;
        case 2:
          ++asked;
          registry.disableByForce(id, [&](Control::Result<void>) { ++answered; });
          break;
        case 3:
          if (before == ExportState::enabled) publisher.counts[id] = 1;
          break;
        case 4:
          publisher.counts[id] = 0;
          registry.lastClientLeft(id);
          if (publisher.ending.contains(id)) std::exchange(publisher.ending.at(id), [] {})();
          break;
        case 5:
          registry.storageFailed(id, EIO);
          break;
        default:
          registry.lastClientLeft(id);
      }
      const ExportState after = registry.info(id)->state;
      RC_ASSERT(publisher.published.contains(id) == (after == ExportState::enabled));
      RC_ASSERT(registry.info(id)->reason.has_value() == (after == ExportState::failed));
      RC_ASSERT(registry.activeCount() ==
                std::size_t{after == ExportState::enabled || after == ExportState::disabling});
      SavedState now;
      registry.describe(now);
      RC_ASSERT(now == saved);
      RC_ASSERT(after == ExportState::disabling || answered == asked);
    }
  });
}

}  // namespace
}  // namespace Nbdd
