#include "nbdd/exports/export_states.h"

#include <fmt/core.h>

#include <algorithm>
#include <array>
#include <cstdlib>

#include "nbdd/state/transition_table.h"

namespace Nbdd {

namespace {

using enum ExportEvent;
using Control::ExportState;
using Effect = ExportEffect;
using Answer = ExportAnswer;

constexpr auto added = ExportState::added;
constexpr auto enabled = ExportState::enabled;
constexpr auto disabling = ExportState::disabling;
constexpr auto disabled = ExportState::disabled;
constexpr auto failed = ExportState::failed;
constexpr std::nullopt_t gone = std::nullopt;
constexpr std::nullopt_t asBefore = std::nullopt;

// What already holds is granted and changes nothing. An export that is served can only be disabled; all else
// is allowed when it rests. One that failed is remembered as wanted, so every start of the service tries it
// again.
constexpr std::array transitions{
    ExportTransition{added, enable, added, Effect::openNode, Answer::none, asBefore},
    ExportTransition{added, disable, added, Effect::none, Answer::success, asBefore},
    ExportTransition{added, disableByForce, added, Effect::none, Answer::success, asBefore},
    ExportTransition{added, ExportEvent::remove, gone, Effect::none, Answer::success, asBefore},
    ExportTransition{added, nodeOpened, enabled, Effect::publish, Answer::success, Wanted::enabled},
    ExportTransition{added, nodeRefused, failed, Effect::none, Answer::nodeFailure, Wanted::enabled},

    ExportTransition{enabled, enable, enabled, Effect::none, Answer::success, asBefore},
    ExportTransition{enabled, disable, disabling, Effect::drain, Answer::success, Wanted::disabled},
    ExportTransition{enabled, disableByForce, disabling, Effect::endSessions, Answer::later,
                     Wanted::disabled},
    ExportTransition{enabled, ExportEvent::remove, enabled, Effect::none, Answer::wrongState, asBefore},
    ExportTransition{enabled, storageFailed, failed, Effect::endSessions, Answer::none, asBefore},

    ExportTransition{disabling, enable, disabling, Effect::none, Answer::wrongState, asBefore},
    ExportTransition{disabling, disable, disabling, Effect::none, Answer::success, asBefore},
    ExportTransition{disabling, disableByForce, disabling, Effect::endSessions, Answer::later, asBefore},
    ExportTransition{disabling, ExportEvent::remove, disabling, Effect::none, Answer::wrongState, asBefore},
    ExportTransition{disabling, lastClientLeft, disabled, Effect::none, Answer::none, asBefore},
    ExportTransition{disabling, storageFailed, failed, Effect::endSessions, Answer::none, asBefore},

    ExportTransition{disabled, enable, disabled, Effect::openNode, Answer::none, asBefore},
    ExportTransition{disabled, disable, disabled, Effect::none, Answer::success, asBefore},
    ExportTransition{disabled, disableByForce, disabled, Effect::none, Answer::success, asBefore},
    ExportTransition{disabled, ExportEvent::remove, gone, Effect::none, Answer::success, asBefore},
    ExportTransition{disabled, nodeOpened, enabled, Effect::publish, Answer::success, Wanted::enabled},
    ExportTransition{disabled, nodeRefused, failed, Effect::none, Answer::nodeFailure, Wanted::enabled},

    ExportTransition{failed, enable, failed, Effect::openNode, Answer::none, asBefore},
    ExportTransition{failed, disable, disabled, Effect::none, Answer::success, Wanted::disabled},
    ExportTransition{failed, disableByForce, disabled, Effect::none, Answer::success, Wanted::disabled},
    ExportTransition{failed, ExportEvent::remove, gone, Effect::none, Answer::success, asBefore},
    ExportTransition{failed, nodeOpened, enabled, Effect::publish, Answer::success, Wanted::enabled},
    ExportTransition{failed, nodeRefused, failed, Effect::none, Answer::nodeFailure, Wanted::enabled},
    ExportTransition{failed, lastClientLeft, failed, Effect::none, Answer::none, asBefore},
};

constexpr std::array returns{
    ExportReturn{Wanted::added, added, Effect::none},
    ExportReturn{Wanted::enabled, disabled, Effect::openNode},
    ExportReturn{Wanted::disabled, disabled, Effect::none},
};

std::string_view toText(Effect effect) {
  switch (effect) {
    case Effect::none:
      return "";
    case Effect::openNode:
      return "open the node";
    case Effect::publish:
      return "offer it to clients";
    case Effect::drain:
      return "take no new clients";
    case Effect::endSessions:
      return "end the clients after their running requests";
  }
  std::abort();
}

std::string_view toText(Answer answer) {
  switch (answer) {
    case Answer::none:
      return "";
    case Answer::success:
      return "success";
    case Answer::wrongState:
      return "wrongState";
    case Answer::nodeFailure:
      return "why the node was refused";
    case Answer::later:
      return "success when the last client has left";
  }
  std::abort();
}

}  // namespace

std::string_view toText(ExportState state) {
  switch (state) {
    case added:
      return "added";
    case enabled:
      return "enabled";
    case disabling:
      return "disabling";
    case disabled:
      return "disabled";
    case failed:
      return "failed";
  }
  std::abort();
}

std::string_view toText(ExportEvent event) {
  switch (event) {
    case enable:
      return "enable";
    case disable:
      return "disable";
    case disableByForce:
      return "disable by force";
    case ExportEvent::remove:
      return "remove";
    case nodeOpened:
      return "node opened";
    case nodeRefused:
      return "node refused";
    case lastClientLeft:
      return "last client left";
    case storageFailed:
      return "storage failed";
  }
  std::abort();
}

std::span<const ExportTransition> exportTransitions() { return transitions; }

const ExportTransition* findTransition(ExportState state, ExportEvent event) {
  return findRow(transitions, state, event);
}

std::span<const ExportReturn> exportReturns() { return returns; }

const ExportReturn& returnOf(Wanted wanted) {
  return *std::ranges::find(returns, wanted, &ExportReturn::wanted);
}

std::string exportStatesAsMarkdown() {
  std::string text =
      "| State | Event | Next state | What is done | Answer | Remembered |\n"
      "|---|---|---|---|---|---|\n";
  for (const ExportTransition& row : transitions) {
    text += fmt::format("| {} | {} | {} | {} | {} | {} |\n", toText(row.from), toText(row.event),
                        row.to ? toText(*row.to) : "(gone)", toText(row.effect), toText(row.answer),
                        row.wanted ? toText(*row.wanted) : "");
  }
  text +=
      "\n| Remembered | State at start | What is done |\n"
      "|---|---|---|\n";
  for (const ExportReturn& row : returns) {
    text += fmt::format("| {} | {} | {} |\n", toText(row.wanted), toText(row.state), toText(row.effect));
  }
  return text;
}

}  // namespace Nbdd
