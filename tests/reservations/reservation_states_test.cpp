#include "nbdd/reservations/reservation_states.h"

#include <gtest/gtest.h>

#include <array>
#include <deque>
#include <fstream>
#include <set>
#include <sstream>
#include <utility>

namespace Nbdd::Reservations {
namespace {

using enum State;

constexpr std::array states{off, free, clearing, held};
constexpr std::array events{
    Event::passwordSet, Event::passwordTaken, Event::claimed, Event::claimedAgain, Event::cleared,
    Event::notSaved,    Event::claimantLeft,  Event::proven,  Event::released,     Event::expired};

TEST(ReservationStates, EveryPairHasAtMostOneRow) {
  std::set<std::pair<State, Event>> seen;
  for (const Transition& row : transitions()) {
    EXPECT_TRUE(seen.emplace(row.from, row.event).second) << toText(row.from) << ", " << toText(row.event);
    EXPECT_EQ(findTransition(row.from, row.event), &row);
  }
}

TEST(ReservationStates, WhatAnybodyMayAskIsAnsweredInEveryState) {
  for (const State state : states) {
    for (const Event event : {Event::passwordSet, Event::passwordTaken, Event::claimed}) {
      const Transition* const row = findTransition(state, event);
      ASSERT_NE(row, nullptr) << toText(state) << ", " << toText(event);
      EXPECT_NE(row->reply, Reply::none) << toText(state) << ", " << toText(event);
    }
  }
}

TEST(ReservationStates, TheHoldersEventsNeedAHolder) {
  for (const State state : states) {
    for (const Event event : {Event::claimedAgain, Event::proven, Event::released, Event::expired}) {
      EXPECT_EQ(findTransition(state, event) != nullptr, state == held) << toText(state);
    }
  }
}

TEST(ReservationStates, ClearingHasEveryOutcomeAndNothingElseHasThem) {
  for (const State state : states) {
    for (const Event event : {Event::cleared, Event::notSaved, Event::claimantLeft}) {
      EXPECT_EQ(findTransition(state, event) != nullptr, state == clearing) << toText(state);
    }
  }
}

TEST(ReservationStates, OnlyWhoClearedTheServerHoldsIt) {
  for (const Transition& row : transitions()) {
    if (row.to == held && row.from != held) {
      EXPECT_EQ(row.from, clearing);
      EXPECT_EQ(row.event, Event::cleared);
      EXPECT_EQ(row.effect, Effect::grant);
    }
    if (row.to == clearing && row.from != clearing) {
      EXPECT_EQ(row.effect, Effect::clear);
    }
  }
}

TEST(ReservationStates, LeavingAStateUndoesWhatEnteringItDid) {
  for (const Transition& row : transitions()) {
    if (row.from == clearing && row.to != clearing && row.to != held) {
      EXPECT_EQ(row.effect, Effect::abandon);
    }
    if (row.from == held && row.to != held) {
      EXPECT_EQ(row.effect, Effect::end);
    }
  }
}

TEST(ReservationStates, AClaimantIsToldWhateverBecomesOfItsClaim) {
  for (const Transition& row : transitions()) {
    const bool isDecided = row.from == clearing && row.to != clearing;
    const bool isThere = row.event != Event::claimantLeft;
    EXPECT_EQ(row.toldClaimant != Reply::none, isDecided && isThere)
        << toText(row.from) << ", " << toText(row.event);
  }
}

TEST(ReservationStates, ARefusalChangesNothing) {
  for (const Transition& row : transitions()) {
    if (row.reply != Reply::reservedByOther && row.reply != Reply::disabled) continue;
    EXPECT_EQ(row.to, row.from);
    EXPECT_EQ(row.effect, Effect::none);
  }
}

TEST(ReservationStates, EveryStateIsReachedAndLeadsBackToOff) {
  for (const State from : states) {
    std::set<State> reached{from};
    std::deque<State> open{from};
    while (!open.empty()) {
      const State state = open.front();
      open.pop_front();
      for (const Event event : events) {
        const Transition* const row = findTransition(state, event);
        if (row != nullptr && reached.insert(row->to).second) open.push_back(row->to);
      }
    }
    EXPECT_EQ(reached.size(), states.size()) << toText(from);
  }
}

TEST(ReservationStates, TheDocumentationShowsThisTable) {
  std::ifstream file(TALVEK_SOURCE_DIR "/docs/reservations.md");
  std::stringstream text;
  text << file.rdbuf();
  EXPECT_NE(text.str().find(statesAsMarkdown()), std::string::npos)
      << "docs/reservations.md must hold this:\n"
      << statesAsMarkdown();
}

}  // namespace
}  // namespace Nbdd::Reservations
