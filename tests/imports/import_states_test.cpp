#include "nbdd/imports/import_states.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <set>
#include <utility>

#include "tests/support/service_process.h"

namespace Nbdd {
namespace {

using Control::ImportDisableReason;
using Control::ImportState;
using enum ImportEvent;

constexpr std::array states{ImportState::added, ImportState::connecting, ImportState::connected,
                            ImportState::disabling, ImportState::disabled};
constexpr std::array requests{enable, disable, disableByForce, ImportEvent::remove};

bool isRequest(ImportEvent event) {
  return event == disableInUse || std::ranges::find(requests, event) != requests.end();
}

bool runs(ImportState state) { return state != ImportState::added && state != ImportState::disabled; }

TEST(ImportStates, EveryPairHasAtMostOneRow) {
  std::set<std::pair<ImportState, ImportEvent>> seen;
  for (const ImportTransition& row : importTransitions()) {
    EXPECT_TRUE(seen.emplace(row.from, row.event).second) << toText(row.from) << ", " << toText(row.event);
    EXPECT_EQ(findTransition(row.from, row.event), &row);
  }
}

TEST(ImportStates, EveryRequestIsAnsweredInEveryState) {
  for (const ImportState state : states) {
    for (const ImportEvent event : requests) {
      const ImportTransition* const row = findTransition(state, event);
      ASSERT_NE(row, nullptr) << toText(state) << ", " << toText(event);
      EXPECT_NE(row->answer, ImportAnswer::none) << toText(state) << ", " << toText(event);
    }
    // Only what runs can be in use.
    EXPECT_EQ(findTransition(state, disableInUse) != nullptr, runs(state)) << toText(state);
  }
}

TEST(ImportStates, NobodyIsAnsweredAtOnceWhoDidNotAsk) {
  for (const ImportTransition& row : importTransitions()) {
    if (isRequest(row.event)) continue;
    EXPECT_TRUE(row.answer == ImportAnswer::none || row.answer == ImportAnswer::allSuccess ||
                row.answer == ImportAnswer::allFailure)
        << toText(row.from) << ", " << toText(row.event);
    EXPECT_TRUE(!row.wanted || row.event == serverReached) << "what the operator wants changed without him";
  }
}

TEST(ImportStates, WhoWaitsIsAnsweredOnEveryWayOut) {
  // While somebody waits for an import to connect, whatever ends that answers him; and so does the end of
  // disabling.
  for (const ImportEvent event : {serverReached, enableFailed, serverUnusable, nodesFailed, notSaved}) {
    const ImportTransition* const row = findTransition(ImportState::connecting, event);
    ASSERT_NE(row, nullptr) << toText(event);
    EXPECT_EQ(row->answer, event == serverReached ? ImportAnswer::allSuccess : ImportAnswer::allFailure);
  }
  EXPECT_EQ(findTransition(ImportState::disabling, ended)->answer, ImportAnswer::allSuccess);
}

TEST(ImportStates, EffectsAndStatesGoTogether) {
  for (const ImportTransition& row : importTransitions()) {
    if (!row.to) {
      EXPECT_FALSE(runs(row.from));
      continue;
    }
    EXPECT_EQ(row.effect == ImportEffect::connect, !runs(row.from) && runs(*row.to)) << toText(row.event);
    EXPECT_EQ(row.effect == ImportEffect::end,
              row.from != ImportState::disabling && *row.to == ImportState::disabling)
        << toText(row.event);
    EXPECT_EQ(row.reason.has_value(), row.effect == ImportEffect::end)
        << "why it is disabled is always known";
    if (runs(row.from) && !runs(*row.to)) {
      EXPECT_EQ(row.event, ended);
    }
  }
}

TEST(ImportStates, ARefusedRequestChangesNothing) {
  for (const ImportTransition& row : importTransitions()) {
    if (row.answer != ImportAnswer::wrongState && row.answer != ImportAnswer::inUse) continue;
    EXPECT_EQ(row.to, row.from);
    EXPECT_EQ(row.effect, ImportEffect::none);
    EXPECT_EQ(row.wanted, std::nullopt);
  }
}

TEST(ImportStates, TheReasonSaysWhoseDoingItWas) {
  for (const ImportTransition& row : importTransitions()) {
    if (!row.reason) continue;
    EXPECT_EQ(row.reason == ImportDisableReason::clientRequest, isRequest(row.event)) << toText(row.event);
  }
  EXPECT_EQ(findTransition(ImportState::connecting, enableFailed)->reason,
            ImportDisableReason::connectionFailed);
  EXPECT_EQ(findTransition(ImportState::connected, serverUnusable)->reason,
            ImportDisableReason::networkError);
  EXPECT_EQ(findTransition(ImportState::connecting, nodesFailed)->reason, ImportDisableReason::internalError);
}

TEST(ImportStates, EveryStateCanBeLeftAndEveryWayEndsInRemoval) {
  for (const ImportState start : states) {
    std::optional<ImportState> state = start;
    for (const ImportEvent event : {disableByForce, ended, ImportEvent::remove}) {
      if (!state) break;
      if (const ImportTransition* const row = findTransition(*state, event)) state = row->to;
    }
    EXPECT_EQ(state, std::nullopt) << toText(start);
  }
}

TEST(ImportStates, WhatIsRememberedComesBack) {
  EXPECT_EQ(importReturnOf(Wanted::added).state, ImportState::added);
  EXPECT_EQ(importReturnOf(Wanted::disabled).state, ImportState::disabled);
  EXPECT_EQ(importReturnOf(Wanted::enabled).state, ImportState::connecting);
  for (const ImportReturn& row : importReturns()) {
    EXPECT_EQ(row.effect == ImportEffect::connect, runs(row.state));
  }
}

TEST(ImportStates, TheDocumentShowsTheSameTables) {
  const std::string document = ::Testing::readText(TALVEK_SOURCE_DIR "/docs/import-states.md");
  const std::string tables = importStatesAsMarkdown();
  EXPECT_TRUE(document.ends_with("\n\n" + tables)) << "docs/import-states.md must end with:\n" << tables;
}

}  // namespace
}  // namespace Nbdd
