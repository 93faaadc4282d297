#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

// Who holds this server, as one table.
//
// A server cannot be reserved (it has no password), is free, is being cleared of its clients for the host
// that reserves it, or is held. Whatever happens is one of the events below, and the table says for each
// state and event what the next state is, what has to be done, and what whoever asked is told. The desk only
// does what the row says. docs/reservations.md shows the same table.

namespace Nbdd::Reservations {

enum class State : std::uint8_t {
  off,       ///< no password is set
  free,      ///< a password is set, nobody holds the server
  clearing,  ///< nobody is let in, the clients are ended: the server is about to be held
  held,
};

enum class Event : std::uint8_t {
  passwordSet,    ///< the operator gives a password, the first or another
  passwordTaken,  ///< the operator takes it away
  claimed,        ///< a host that does not hold the server has shown that it knows the password
  claimedAgain,   ///< the holder has
  cleared,        ///< the last client has ended, and the lease is saved
  notSaved,       ///< the last client has ended, and the lease could not be saved
  claimantLeft,   ///< whoever the server is cleared for does not wait any more
  proven,         ///< the holder has shown that he is there
  released,       ///< the holder gives the server back
  expired,        ///< the holder was not heard of for the lease's time
};

enum class Effect : std::uint8_t {
  none,
  clear,    ///< let nobody in and end the clients; cleared or notSaved follows
  grant,    ///< let the new holder in, and start his time
  renew,    ///< start the holder's time again
  abandon,  ///< let everybody in again
  end,      ///< forget the lease, end the holder's connections, and let everybody in
};

/// What whoever asked is told. In `clearing` there is somebody who waits to be told as well: see
/// `toldClaimant`.
enum class Reply : std::uint8_t { none, done, later, renewed, reservedByOther, disabled, failed };

struct Transition {
  State from;
  Event event;
  State to;
  Effect effect;
  Reply reply;         ///< to whoever the event is about
  Reply toldClaimant;  ///< to whoever the server was being cleared for
};

/// Every row once, by state and then by event. Events that cannot happen in a state have no row.
std::span<const Transition> transitions();

/// The row for `state` and `event`; null where there is none.
const Transition* findTransition(State state, Event event);

/// The table as the Markdown that docs/reservations.md holds.
std::string statesAsMarkdown();

std::string_view toText(State state);
std::string_view toText(Event event);

}  // namespace Nbdd::Reservations
