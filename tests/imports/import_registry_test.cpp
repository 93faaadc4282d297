#include "nbdd/imports/import_registry.h"

#include <gtest/gtest.h>
#include <rapidcheck.h>

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

namespace Nbdd {
namespace {

using Control::FailureCode;
using Control::ImportDisableReason;
using Control::ImportId;
using Control::ImportState;

/// A run whose events the test makes happen.
class FakeRun final : public ImportRun {
 public:
  struct Handle {
    ImportEvents events;
    ImportStatus status;
    bool ending = false;
    NodeEnding how{};
    std::size_t foundUsers = 0;  // beyond those that the nodes are told of
    bool destroyed = false;
    std::optional<bool> compression = std::nullopt;
  };
  explicit FakeRun(std::shared_ptr<Handle> handle) : handle_(std::move(handle)) {}
  ~FakeRun() override { handle_->destroyed = true; }
  void end(NodeEnding ending) override {
    handle_->ending = true;
    handle_->how = ending;
  }
  ImportStatus status() const override { return handle_->status; }
  ImportStatus statusWithUsers() const override {
    ImportStatus status = handle_->status;
    for (NodeStatus& node : status.nodes) node.users += handle_->foundUsers;
    return status;
  }
  void setCompression(bool enable) override { handle_->compression = enable; }

 private:
  std::shared_ptr<Handle> handle_;
};

const Control::Failure refused{FailureCode::connectionRefused, "nothing listens there"};

class ImportRegistryTest : public ::testing::Test {
 protected:
  std::unique_ptr<ImportRun> start(const SavedImport& import, ImportEvents events) {
    if (refuseThreads) throw std::system_error(EAGAIN, std::generic_category());
    auto handle = std::make_shared<FakeRun::Handle>();
    handle->events = std::move(events);
    runs[import.id] = handle;
    return std::make_unique<FakeRun>(handle);
  }
  Control::Result<void> save() {
    if (refuseToSave) return std::unexpected(Control::Failure{FailureCode::stateNotSaved, "refused"});
    registry.describe(saved);
    return {};
  }

  ImportId add(const std::string& name = "disk", const std::string& host = "192.0.2.1") {
    const auto id = registry.add({.name = name, .server = {.address = host}});
    EXPECT_TRUE(id.has_value());
    return id.value_or(ImportId{});
  }
  /// Where an answer goes; empty until it comes.
  using Outcome = std::shared_ptr<std::optional<Control::Result<void>>>;
  static Control::Answer<void> into(const Outcome& outcome) {
    return [outcome](Control::Result<void> result) { outcome->emplace(std::move(result)); };
  }
  Outcome enable(ImportId id) {
    auto outcome = std::make_shared<std::optional<Control::Result<void>>>();
    registry.enable(id, into(outcome));
    return outcome;
  }
  Outcome disable(ImportId id, bool force = true) {
    auto outcome = std::make_shared<std::optional<Control::Result<void>>>();
    registry.disable(id, force, into(outcome));
    return outcome;
  }
  static bool succeeded(const Outcome& outcome) { return *outcome && (*outcome)->has_value(); }
  static FailureCode codeOf(const Outcome& outcome) {
    return *outcome && !(*outcome)->has_value() ? (*outcome)->error().code : FailureCode{};
  }
  ImportState state(ImportId id) const { return registry.info(id)->state; }
  ImportId enabled() {
    const ImportId id = add();
    enable(id);
    runs[id]->events.serverReached();
    EXPECT_EQ(state(id), ImportState::connected);
    return id;
  }

  SavedState saved;
  bool refuseToSave = false;
  bool refuseThreads = false;
  std::map<ImportId, std::shared_ptr<FakeRun::Handle>> runs;
  ImportRegistry registry{
      [this](const SavedImport& import, ImportEvents events) { return start(import, std::move(events)); },
      [this] { return save(); }};
};

TEST_F(ImportRegistryTest, SwitchesTheCompressionOfAllThatRun) {
  const ImportId one = enabled();
  const ImportId other = enabled();
  const ImportId idle = add();
  registry.setCompression(true);
  EXPECT_EQ(runs[one]->compression, true);
  EXPECT_EQ(runs[other]->compression, true);
  EXPECT_FALSE(runs.contains(idle));
  registry.setCompression(false);
  EXPECT_EQ(runs[other]->compression, false);
}

TEST_F(ImportRegistryTest, LeadsAnImportFromItsAdditionToItsRemoval) {
  const ImportId id = add();
  EXPECT_EQ(state(id), ImportState::added);
  const Outcome enabling = enable(id);
  EXPECT_EQ(state(id), ImportState::connecting);
  EXPECT_FALSE(enabling->has_value());
  runs[id]->status = {.size = 4096, .connections = 2, .nodes = {{.name = "socket", .path = "/run/x"}}};
  runs[id]->events.serverReached();
  EXPECT_TRUE(succeeded(enabling));
  const Control::ImportInfo info = *registry.info(id);
  EXPECT_EQ(info.state, ImportState::connected);
  EXPECT_EQ(info.size, 4096U);
  EXPECT_EQ(info.node, "/run/x");
  EXPECT_EQ(info.connections, 2U);
  EXPECT_EQ(info.disableReason, std::nullopt);
  EXPECT_EQ(saved.imports.at(0).wanted, Wanted::enabled);

  const Outcome disabling = disable(id);
  EXPECT_EQ(state(id), ImportState::disabling);
  EXPECT_TRUE(runs[id]->ending);
  EXPECT_FALSE(disabling->has_value());
  runs[id]->events.ended();
  EXPECT_TRUE(succeeded(disabling));
  EXPECT_TRUE(runs[id]->destroyed);
  EXPECT_EQ(state(id), ImportState::disabled);
  EXPECT_EQ(registry.info(id)->disableReason, ImportDisableReason::clientRequest);
  EXPECT_EQ(registry.info(id)->node, "");
  EXPECT_EQ(saved.imports.at(0).wanted, Wanted::disabled);
  EXPECT_TRUE(registry.remove(id));
  EXPECT_TRUE(saved.imports.empty());
  EXPECT_EQ(registry.info(id).error().code, FailureCode::noSuchImport);
}

TEST_F(ImportRegistryTest, TellsWhoEnablesWhyTheServerCannotBeReached) {
  const ImportId id = add();
  const Outcome first = enable(id);
  const Outcome second = enable(id);
  runs[id]->events.serverLost(refused);
  EXPECT_EQ(state(id), ImportState::disabling);
  const Outcome disabling = disable(id);
  EXPECT_FALSE(first->has_value()) << "he would find it disabling";
  runs[id]->events.ended();
  EXPECT_EQ(codeOf(first), FailureCode::connectionRefused);
  EXPECT_EQ(codeOf(second), FailureCode::connectionRefused);
  EXPECT_TRUE(succeeded(disabling));
  EXPECT_EQ(state(id), ImportState::disabled);
  EXPECT_EQ(registry.info(id)->disableReason, ImportDisableReason::connectionFailed);
  EXPECT_EQ(registry.info(id)->description, refused.message);
  EXPECT_EQ(saved.imports.at(0).wanted, Wanted::added);
}

TEST_F(ImportRegistryTest, WaitsForAServerThatWasThere) {
  const ImportId id = enabled();
  runs[id]->events.serverLost(refused);
  EXPECT_EQ(state(id), ImportState::connecting);
  EXPECT_EQ(registry.info(id)->description, "waiting for the server: nothing listens there");
  runs[id]->events.serverLost(refused);
  EXPECT_EQ(state(id), ImportState::connecting);
  EXPECT_TRUE(succeeded(enable(id))) << "it is enabled";
  runs[id]->events.serverReached();
  EXPECT_EQ(state(id), ImportState::connected);
  EXPECT_EQ(registry.info(id)->description, "connected");
}

TEST_F(ImportRegistryTest, GivesUpAServerThatCannotBeWorkedWith) {
  const ImportId id = enabled();
  runs[id]->events.serverUnusable({FailureCode::remoteProtocolError, "it lies"});
  EXPECT_TRUE(runs[id]->ending);
  runs[id]->events.ended();
  EXPECT_EQ(registry.info(id)->disableReason, ImportDisableReason::networkError);
  EXPECT_EQ(registry.info(id)->description, "it lies");
  EXPECT_EQ(saved.imports.at(0).wanted, Wanted::enabled) << "the next start tries it again";
  enable(id);
  EXPECT_EQ(registry.info(id)->disableReason, std::nullopt);
}

TEST_F(ImportRegistryTest, DoesNotTakeAwayWhatIsUsedUnlessForced) {
  const ImportId id = enabled();
  runs[id]->status.nodes = {{.name = "socket", .path = "/run/x", .users = 1}};
  EXPECT_EQ(codeOf(disable(id, false)), FailureCode::importInUse);
  EXPECT_EQ(state(id), ImportState::connected);
  disable(id, true);
  EXPECT_TRUE(runs[id]->ending);
  EXPECT_EQ(codeOf(enable(id)), FailureCode::wrongState);
  EXPECT_EQ(registry.remove(id).error().code, FailureCode::wrongState);
}

TEST_F(ImportRegistryTest, AnswersWhoEnablesWhenSomebodyDisables) {
  const ImportId id = add();
  const Outcome enabling = enable(id);
  const Outcome disabling = disable(id);
  EXPECT_EQ(codeOf(enabling), FailureCode::wrongState);
  runs[id]->events.serverReached();  // too late
  runs[id]->events.ended();
  EXPECT_TRUE(succeeded(disabling));
  EXPECT_EQ(state(id), ImportState::disabled);
}

TEST_F(ImportRegistryTest, DoesNothingThatCannotBeSaved) {
  const ImportId id = enabled();
  refuseToSave = true;
  EXPECT_EQ(registry.add({.name = "x", .server = {.address = "h"}}).error().code, FailureCode::stateNotSaved);
  EXPECT_EQ(registry.size(), 1U);
  EXPECT_EQ(codeOf(disable(id)), FailureCode::stateNotSaved);
  EXPECT_EQ(state(id), ImportState::connected);
  refuseToSave = false;
  disable(id);
  runs[id]->events.ended();
  refuseToSave = true;
  const Outcome enabling = enable(id);
  runs[id]->events.serverReached();
  EXPECT_EQ(state(id), ImportState::disabling);
  runs[id]->events.ended();
  EXPECT_EQ(codeOf(enabling), FailureCode::stateNotSaved);
  EXPECT_EQ(registry.info(id)->disableReason, ImportDisableReason::internalError);
  EXPECT_EQ(registry.remove(id).error().code, FailureCode::stateNotSaved);
  EXPECT_EQ(registry.size(), 1U);
}

TEST_F(ImportRegistryTest, LivesWithASystemThatIsOutOfThreads) {
  const ImportId id = add();
  refuseThreads = true;
  EXPECT_EQ(codeOf(enable(id)), FailureCode::limitReached);
  EXPECT_EQ(state(id), ImportState::disabled);
  EXPECT_EQ(registry.info(id)->disableReason, ImportDisableReason::internalError);
}

TEST_F(ImportRegistryTest, RefusesWhatIsNoHostAndTakesWhatIs) {
  for (const std::string host :
       {"", "1.2.3.4.5", "300.1.1.1", "a b", "host\n", "::zz", "[::1]", "a/b", "\xc3\xa4.example"}) {
    EXPECT_EQ(registry.add({.name = "x", .server = {.address = host}}).error().code,
              FailureCode::invalidArgument)
        << host;
  }
  for (const std::string host : {"192.0.2.1", "2001:db8::1", "disk.example", "nas_1"}) {
    EXPECT_TRUE(registry.add({.name = "x", .server = {.address = host}})) << host;
  }
  EXPECT_TRUE(registry.add({.name = "", .server = {.address = "h"}})) << "the default export";
  EXPECT_FALSE(registry.add({.name = std::string("a\0b", 3), .server = {.address = "h"}}));
}

TEST_F(ImportRegistryTest, BringsBackWhatWasSaved) {
  saved.nextImportId = 9;
  for (const auto& [id, wanted] :
       {std::pair(2U, Wanted::added), std::pair(3U, Wanted::enabled), std::pair(8U, Wanted::disabled)}) {
    saved.imports.push_back({.id = ImportId{id}, .name = "x", .server = {.address = "h"}, .wanted = wanted});
  }
  registry.restore(saved);
  EXPECT_EQ(registry.list(), (std::vector{ImportId{2}, ImportId{3}, ImportId{8}}));
  EXPECT_EQ(state(ImportId{2}), ImportState::added);
  EXPECT_EQ(state(ImportId{3}), ImportState::connecting);
  EXPECT_EQ(state(ImportId{8}), ImportState::disabled);
  runs[ImportId{3}]->events.serverLost(refused);
  EXPECT_EQ(state(ImportId{3}), ImportState::connecting) << "nobody waits, so it goes on";
  EXPECT_EQ(add(), ImportId{9});
}

TEST_F(ImportRegistryTest, ClosesWithoutForgetting) {
  const ImportId id = enabled();
  bool closed = false;
  registry.close([&] { closed = true; });
  EXPECT_FALSE(closed);
  EXPECT_TRUE(runs[id]->ending);
  EXPECT_EQ(runs[id]->how, NodeEnding::untilRestart);
  runs[id]->events.ended();
  EXPECT_TRUE(closed);
  EXPECT_EQ(saved.imports.at(0).wanted, Wanted::enabled);
}

TEST_F(ImportRegistryTest, AsksTheHostWhoUsesTheNodesWhenItIsAboutToTakeThemAway) {
  const ImportId id = enabled();
  runs[id]->status.nodes = {{.name = "block", .path = "/run/x", .users = 0}};
  runs[id]->foundUsers = 1;
  EXPECT_EQ(codeOf(disable(id, false)), FailureCode::importInUse);
  EXPECT_FALSE(runs[id]->ending);
  disable(id, true);
  EXPECT_TRUE(runs[id]->ending);
  EXPECT_EQ(runs[id]->how, NodeEnding::forGood);
}

TEST_F(ImportRegistryTest, ListsItsNodes) {
  const ImportId id = enabled();
  runs[id]->status.nodes = {{.name = "block", .missing = "the kernel has no nbd driver"},
                            {.name = "socket", .path = "/run/x", .users = 3}};
  const Control::Variant nodes = *registry.nodeInterfaces(id);
  ASSERT_EQ(nodes.size(), 2U);
  EXPECT_EQ(nodes[0].name, "block");
  EXPECT_EQ(std::get<Control::Variant>(nodes[0].value),
            (Control::Variant{{"state", std::string("not available")},
                              {"needs", std::string("the kernel has no nbd driver")}}));
  EXPECT_EQ(std::get<Control::Variant>(nodes[1].value), (Control::Variant{{"state", std::string("active")},
                                                                          {"path", std::string("/run/x")},
                                                                          {"users", std::uint64_t{3}}}));
}

// Whatever happens in whatever order, every asker is answered once the imports have ended, and nothing runs
// that the operator has disabled.
TEST(ImportRegistry, AnswersEverybodyInTheEnd) {
  rc::check([] {
    std::shared_ptr<FakeRun::Handle> run;
    std::size_t asked = 0;
    std::size_t answered = 0;
    ImportRegistry registry(
        [&](const SavedImport&, ImportEvents events) {
          RC_ASSERT((!run || run->destroyed));  // bare, both sides would be evaluated
          run = std::make_shared<FakeRun::Handle>();
          run->events = std::move(events);
          return std::make_unique<FakeRun>(run);
        },
        []() -> Control::Result<void> { return {}; });
    const ImportId id = *registry.add({.name = "x", .server = {.address = "h"}});
    const auto count = [&](const Control::Result<void>&) { ++answered; };
    const auto running = [&] { return run && !run->destroyed; };
    for (const int step : *rc::gen::container<std::vector<int>>(rc::gen::inRange(0, 7))) {
      // The last one may destroy the events while they run, as the control loop does not.
      const ImportEvents events = running() ? run->events : ImportEvents{};
      if (step == 0) ++asked, registry.enable(id, count);
      if (step == 1) ++asked, registry.disable(id, true, count);
      if (step == 2) ++asked, registry.disable(id, false, count);
      if (step == 3 && running() && !run->ending) events.serverReached();
      if (step == 4 && running() && !run->ending) events.serverLost(refused);
      if (step == 5 && running() && !run->ending) events.serverUnusable(refused);
      if (step == 6 && running() && run->ending) events.ended();
    }
    ++asked;
    registry.disable(id, true, count);
    if (running()) {
      RC_ASSERT(run->ending);
      const ImportEvents events = run->events;
      events.ended();
    }
    RC_ASSERT(answered == asked);
    const ImportState last = registry.info(id)->state;
    RC_ASSERT((last == ImportState::added || last == ImportState::disabled));
  });
}

}  // namespace
}  // namespace Nbdd
