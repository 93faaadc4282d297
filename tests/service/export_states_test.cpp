#include "nbdd/exports/export_states.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <set>
#include <utility>

#include "tests/support/service_process.h"

namespace Nbdd {
namespace {

using Control::ExportState;
using enum ExportEvent;

constexpr std::array states{ExportState::added, ExportState::enabled, ExportState::disabling,
                            ExportState::disabled, ExportState::failed};
constexpr std::array requests{enable, disable, disableByForce, ExportEvent::remove};

bool isRequest(ExportEvent event) { return std::ranges::find(requests, event) != requests.end(); }

TEST(ExportStates, EveryPairHasAtMostOneRow) {
  std::set<std::pair<ExportState, ExportEvent>> seen;
  for (const ExportTransition& row : exportTransitions()) {
    EXPECT_TRUE(seen.emplace(row.from, row.event).second) << toText(row.from) << ", " << toText(row.event);
    EXPECT_EQ(findTransition(row.from, row.event), &row);
  }
}

TEST(ExportStates, EveryRequestIsAnsweredInEveryState) {
  for (const ExportState state : states) {
    for (const ExportEvent event : requests) {
      const ExportTransition* const row = findTransition(state, event);
      ASSERT_NE(row, nullptr) << toText(state) << ", " << toText(event);
      EXPECT_TRUE(row->answer != ExportAnswer::none || row->effect == ExportEffect::openNode)
          << toText(state) << ", " << toText(event);
    }
  }
}

TEST(ExportStates, NobodyIsAnsweredWhoDidNotAsk) {
  for (const ExportTransition& row : exportTransitions()) {
    const bool outcome = row.event == nodeOpened || row.event == nodeRefused;
    if (isRequest(row.event) || outcome) continue;
    EXPECT_EQ(row.answer, ExportAnswer::none) << toText(row.from) << ", " << toText(row.event);
    EXPECT_EQ(row.wanted, std::nullopt) << "what the operator wants changed without him";
  }
}

TEST(ExportStates, OpeningANodeHasBothOutcomesAndNothingElseHasThem) {
  for (const ExportState state : states) {
    const ExportTransition* const asked = findTransition(state, enable);
    const bool opens = asked->effect == ExportEffect::openNode;
    EXPECT_EQ(opens, findTransition(state, nodeOpened) != nullptr) << toText(state);
    EXPECT_EQ(opens, findTransition(state, nodeRefused) != nullptr) << toText(state);
    if (!opens) continue;
    EXPECT_EQ(asked->to, state);
    EXPECT_EQ(findTransition(state, nodeOpened)->to, ExportState::enabled);
    EXPECT_EQ(findTransition(state, nodeOpened)->effect, ExportEffect::publish);
    EXPECT_EQ(findTransition(state, nodeRefused)->to, ExportState::failed);
    EXPECT_EQ(findTransition(state, nodeRefused)->answer, ExportAnswer::nodeFailure);
  }
}

TEST(ExportStates, ARefusedRequestChangesNothing) {
  for (const ExportTransition& row : exportTransitions()) {
    if (row.answer != ExportAnswer::wrongState) continue;
    EXPECT_EQ(row.to, row.from);
    EXPECT_EQ(row.effect, ExportEffect::none);
    EXPECT_EQ(row.wanted, std::nullopt);
  }
}

TEST(ExportStates, WhatAlreadyHoldsIsGrantedAndChangesNothing) {
  for (const auto& [state, event] :
       {std::pair(ExportState::enabled, enable), std::pair(ExportState::disabled, disable),
        std::pair(ExportState::disabled, disableByForce), std::pair(ExportState::disabling, disable),
        std::pair(ExportState::added, disable)}) {
    const ExportTransition* const row = findTransition(state, event);
    ASSERT_NE(row, nullptr);
    EXPECT_EQ(row->to, state);
    EXPECT_EQ(row->effect, ExportEffect::none);
    EXPECT_EQ(row->answer, ExportAnswer::success);
    EXPECT_EQ(row->wanted, std::nullopt);
  }
}

TEST(ExportStates, OnlyWhatIsNotServedIsRemoved) {
  for (const ExportState state : states) {
    const bool served = state == ExportState::enabled || state == ExportState::disabling;
    const ExportTransition* const row = findTransition(state, ExportEvent::remove);
    EXPECT_EQ(row->to.has_value(), served) << toText(state);
    EXPECT_EQ(row->answer, served ? ExportAnswer::wrongState : ExportAnswer::success) << toText(state);
  }
}

TEST(ExportStates, EveryStateCanBeLeftAndEveryWayEndsInRemoval) {
  // Within four requests, with clients that leave, any export can be got rid of.
  for (const ExportState start : states) {
    std::optional<ExportState> state = start;
    for (const ExportEvent event : {disableByForce, lastClientLeft, ExportEvent::remove}) {
      if (!state) break;
      if (const ExportTransition* const row = findTransition(*state, event)) state = row->to;
    }
    EXPECT_EQ(state, std::nullopt) << toText(start);
  }
}

TEST(ExportStates, WhatIsRememberedComesBack) {
  EXPECT_EQ(returnOf(Wanted::added).state, ExportState::added);
  EXPECT_EQ(returnOf(Wanted::added).effect, ExportEffect::none);
  EXPECT_EQ(returnOf(Wanted::disabled).state, ExportState::disabled);
  EXPECT_EQ(returnOf(Wanted::disabled).effect, ExportEffect::none);
  EXPECT_EQ(returnOf(Wanted::enabled).effect, ExportEffect::openNode);
  EXPECT_NE(findTransition(returnOf(Wanted::enabled).state, nodeOpened), nullptr);
}

TEST(ExportStates, TheDocumentShowsTheSameTables) {
  const std::string document = ::Testing::readText(TALVEK_SOURCE_DIR "/docs/states.md");
  const std::string tables = exportStatesAsMarkdown();
  EXPECT_TRUE(document.ends_with("\n\n" + tables)) << "docs/states.md must end with:\n" << tables;
}

}  // namespace
}  // namespace Nbdd
