#include "nbdd/reservations/reservation_states.h"

#include <fmt/core.h>

#include <array>
#include <cstdlib>

#include "nbdd/state/transition_table.h"

namespace Nbdd::Reservations {

namespace {

using enum Event;
using enum State;

// The lease is the holder's, not the password's: another password concerns whoever comes next. Who is being
// made room for holds nothing yet, and loses it if the operator takes the password away.
constexpr std::array table{
    Transition{off, passwordSet, free, Effect::none, Reply::done, Reply::none},
    Transition{off, passwordTaken, off, Effect::none, Reply::done, Reply::none},
    Transition{off, claimed, off, Effect::none, Reply::disabled, Reply::none},

    Transition{free, passwordSet, free, Effect::none, Reply::done, Reply::none},
    Transition{free, passwordTaken, off, Effect::none, Reply::done, Reply::none},
    Transition{free, claimed, clearing, Effect::clear, Reply::later, Reply::none},

    Transition{clearing, passwordSet, clearing, Effect::none, Reply::done, Reply::none},
    Transition{clearing, passwordTaken, off, Effect::abandon, Reply::done, Reply::disabled},
    Transition{clearing, claimed, clearing, Effect::none, Reply::reservedByOther, Reply::none},
    Transition{clearing, cleared, held, Effect::grant, Reply::none, Reply::done},
    Transition{clearing, notSaved, free, Effect::abandon, Reply::none, Reply::failed},
    Transition{clearing, claimantLeft, free, Effect::abandon, Reply::none, Reply::none},

    Transition{held, passwordSet, held, Effect::none, Reply::done, Reply::none},
    Transition{held, passwordTaken, off, Effect::end, Reply::done, Reply::none},
    Transition{held, claimed, held, Effect::none, Reply::reservedByOther, Reply::none},
    Transition{held, claimedAgain, held, Effect::renew, Reply::renewed, Reply::none},
    Transition{held, proven, held, Effect::renew, Reply::done, Reply::none},
    Transition{held, released, free, Effect::end, Reply::done, Reply::none},
    Transition{held, expired, free, Effect::end, Reply::none, Reply::none},
};

std::string_view toText(Effect effect) {
  switch (effect) {
    case Effect::none:
      return "";
    case Effect::clear:
      return "let nobody in, end the clients after their running requests";
    case Effect::grant:
      return "let the holder in, start his time";
    case Effect::renew:
      return "start the holder's time again";
    case Effect::abandon:
      return "let everybody in again";
    case Effect::end:
      return "forget the lease, end the holder's connections, let everybody in";
  }
  std::abort();
}

std::string_view toText(Reply reply) {
  switch (reply) {
    case Reply::none:
      return "";
    case Reply::done:
      return "success";
    case Reply::later:
      return "when the last client has ended";
    case Reply::renewed:
      return "success: the lease goes on";
    case Reply::reservedByOther:
      return "reservedByOther";
    case Reply::disabled:
      return "reservationDisabled";
    case Reply::failed:
      return "stateNotSaved";
  }
  std::abort();
}

}  // namespace

std::string_view toText(State state) {
  switch (state) {
    case off:
      return "off";
    case free:
      return "free";
    case clearing:
      return "clearing";
    case held:
      return "held";
  }
  std::abort();
}

std::string_view toText(Event event) {
  switch (event) {
    case passwordSet:
      return "password set";
    case passwordTaken:
      return "password taken away";
    case claimed:
      return "claimed";
    case claimedAgain:
      return "claimed by the holder";
    case cleared:
      return "last client ended, lease saved";
    case notSaved:
      return "last client ended, lease not saved";
    case claimantLeft:
      return "claimant left";
    case proven:
      return "holder heard of";
    case released:
      return "released by the holder";
    case expired:
      return "time over";
  }
  std::abort();
}

std::span<const Transition> transitions() { return table; }

const Transition* findTransition(State state, Event event) { return findRow(table, state, event); }

std::string statesAsMarkdown() {
  std::string text =
      "| State | Event | Next state | What is done | Answer | Told to the claimant |\n"
      "|---|---|---|---|---|---|\n";
  for (const Transition& row : table) {
    text += fmt::format("| {} | {} | {} | {} | {} | {} |\n", toText(row.from), toText(row.event),
                        toText(row.to), toText(row.effect), toText(row.reply), toText(row.toldClaimant));
  }
  return text;
}

}  // namespace Nbdd::Reservations
