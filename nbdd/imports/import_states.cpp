#include "nbdd/imports/import_states.h"

#include <fmt/core.h>

#include <algorithm>
#include <array>
#include <cstdlib>

#include "nbdd/state/transition_table.h"

namespace Nbdd {

namespace {

using enum ImportEvent;
using Control::ImportState;
using Effect = ImportEffect;
using Answer = ImportAnswer;
using Reason = Control::ImportDisableReason;

constexpr auto added = ImportState::added;
constexpr auto connecting = ImportState::connecting;
constexpr auto connected = ImportState::connected;
constexpr auto disabling = ImportState::disabling;
constexpr auto disabled = ImportState::disabled;
constexpr std::nullopt_t gone = std::nullopt;
constexpr std::nullopt_t none = std::nullopt;
constexpr std::nullopt_t asBefore = std::nullopt;

// What already holds is granted and changes nothing. An import whose first attempt fails while the operator
// waits is disabled, and he is told why; once it was enabled, it waits for its server until somebody disables
// it.
constexpr std::array transitions{
    ImportTransition{added, enable, connecting, Effect::connect, Answer::later, none, asBefore},
    ImportTransition{added, disable, added, Effect::none, Answer::success, none, asBefore},
    ImportTransition{added, disableByForce, added, Effect::none, Answer::success, none, asBefore},
    ImportTransition{added, ImportEvent::remove, gone, Effect::none, Answer::success, none, asBefore},

    ImportTransition{connecting, enable, connecting, Effect::none, Answer::later, none, asBefore},
    ImportTransition{connecting, disable, disabling, Effect::end, Answer::later, Reason::clientRequest,
                     Wanted::disabled},
    ImportTransition{connecting, disableInUse, connecting, Effect::none, Answer::inUse, none, asBefore},
    ImportTransition{connecting, disableByForce, disabling, Effect::end, Answer::later, Reason::clientRequest,
                     Wanted::disabled},
    ImportTransition{connecting, ImportEvent::remove, connecting, Effect::none, Answer::wrongState, none,
                     asBefore},
    ImportTransition{connecting, serverReached, connected, Effect::none, Answer::allSuccess, none,
                     Wanted::enabled},
    ImportTransition{connecting, enableFailed, disabling, Effect::end, Answer::allFailure,
                     Reason::connectionFailed, asBefore},
    ImportTransition{connecting, serverLost, connecting, Effect::none, Answer::none, none, asBefore},
    ImportTransition{connecting, serverUnusable, disabling, Effect::end, Answer::allFailure,
                     Reason::networkError, asBefore},
    ImportTransition{connecting, nodesFailed, disabling, Effect::end, Answer::allFailure,
                     Reason::internalError, asBefore},
    ImportTransition{connecting, notSaved, disabling, Effect::end, Answer::allFailure, Reason::internalError,
                     asBefore},

    ImportTransition{connected, enable, connected, Effect::none, Answer::success, none, asBefore},
    ImportTransition{connected, disable, disabling, Effect::end, Answer::later, Reason::clientRequest,
                     Wanted::disabled},
    ImportTransition{connected, disableInUse, connected, Effect::none, Answer::inUse, none, asBefore},
    ImportTransition{connected, disableByForce, disabling, Effect::end, Answer::later, Reason::clientRequest,
                     Wanted::disabled},
    ImportTransition{connected, ImportEvent::remove, connected, Effect::none, Answer::wrongState, none,
                     asBefore},
    ImportTransition{connected, serverLost, connecting, Effect::none, Answer::none, none, asBefore},
    ImportTransition{connected, serverUnusable, disabling, Effect::end, Answer::none, Reason::networkError,
                     asBefore},

    ImportTransition{disabling, enable, disabling, Effect::none, Answer::wrongState, none, asBefore},
    ImportTransition{disabling, disable, disabling, Effect::none, Answer::later, none, asBefore},
    ImportTransition{disabling, disableInUse, disabling, Effect::none, Answer::later, none, asBefore},
    ImportTransition{disabling, disableByForce, disabling, Effect::none, Answer::later, none, asBefore},
    ImportTransition{disabling, ImportEvent::remove, disabling, Effect::none, Answer::wrongState, none,
                     asBefore},
    ImportTransition{disabling, ended, disabled, Effect::none, Answer::allSuccess, none, asBefore},

    ImportTransition{disabled, enable, connecting, Effect::connect, Answer::later, none, asBefore},
    ImportTransition{disabled, disable, disabled, Effect::none, Answer::success, none, asBefore},
    ImportTransition{disabled, disableByForce, disabled, Effect::none, Answer::success, none, asBefore},
    ImportTransition{disabled, ImportEvent::remove, gone, Effect::none, Answer::success, none, asBefore},
};

constexpr std::array returns{
    ImportReturn{Wanted::added, added, Effect::none},
    ImportReturn{Wanted::enabled, connecting, Effect::connect},
    ImportReturn{Wanted::disabled, disabled, Effect::none},
};

std::string_view toText(Effect effect) {
  switch (effect) {
    case Effect::none:
      return "";
    case Effect::connect:
      return "connect to the server";
    case Effect::end:
      return "take nodes and connections away";
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
    case Answer::inUse:
      return "importInUse";
    case Answer::later:
      return "with the outcome";
    case Answer::allSuccess:
      return "success to all who wait";
    case Answer::allFailure:
      return "what went wrong, to all who wait, when it has ended";
  }
  std::abort();
}

std::string_view toText(Reason reason) {
  switch (reason) {
    case Reason::internalError:
      return "internal error";
    case Reason::clientRequest:
      return "client request";
    case Reason::connectionFailed:
      return "connection failed";
    case Reason::networkError:
      return "network error";
  }
  std::abort();
}

}  // namespace

std::string_view toText(ImportState state) {
  switch (state) {
    case added:
      return "added";
    case connecting:
      return "connecting";
    case connected:
      return "connected";
    case disabling:
      return "disabling";
    case disabled:
      return "disabled";
  }
  std::abort();
}

std::string_view toText(ImportEvent event) {
  switch (event) {
    case enable:
      return "enable";
    case disable:
      return "disable";
    case disableInUse:
      return "disable, in use";
    case disableByForce:
      return "disable by force";
    case ImportEvent::remove:
      return "remove";
    case serverReached:
      return "server reached";
    case enableFailed:
      return "first attempt failed";
    case serverLost:
      return "server lost";
    case serverUnusable:
      return "server unusable";
    case nodesFailed:
      return "no node can be made";
    case notSaved:
      return "could not be saved";
    case ended:
      return "ended";
  }
  std::abort();
}

std::span<const ImportTransition> importTransitions() { return transitions; }

const ImportTransition* findTransition(ImportState state, ImportEvent event) {
  return findRow(transitions, state, event);
}

std::span<const ImportReturn> importReturns() { return returns; }

const ImportReturn& importReturnOf(Wanted wanted) {
  return *std::ranges::find(returns, wanted, &ImportReturn::wanted);
}

std::string importStatesAsMarkdown() {
  std::string text =
      "| State | Event | Next state | What is done | Answer | Disable reason | Remembered |\n"
      "|---|---|---|---|---|---|---|\n";
  for (const ImportTransition& row : transitions) {
    text += fmt::format("| {} | {} | {} | {} | {} | {} | {} |\n", toText(row.from), toText(row.event),
                        row.to ? toText(*row.to) : "(gone)", toText(row.effect), toText(row.answer),
                        row.reason ? toText(*row.reason) : "", row.wanted ? toText(*row.wanted) : "");
  }
  text +=
      "\n| Remembered | State at start | What is done |\n"
      "|---|---|---|\n";
  for (const ImportReturn& row : returns) {
    text += fmt::format("| {} | {} | {} |\n", toText(row.wanted), toText(row.state), toText(row.effect));
  }
  return text;
}

}  // namespace Nbdd
