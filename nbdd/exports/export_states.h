#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "control/records.h"
#include "nbdd/state/saved_state.h"

// The life of an export, as one table.
//
// An export is added, enabled, disabling, disabled or failed. Whatever happens to it is one of the events
// below, and the table says for each state and event what the next state is, what has to be done, what the
// operator is told and what the state file remembers. Nothing else in the service decides about states; the
// registry only does what the row says. docs/states.md shows the same table.

namespace Nbdd {

enum class ExportEvent {
  enable,          ///< the operator asks
  disable,         ///< the operator asks: no new clients, connected ones may finish
  disableByForce,  ///< the operator asks: end the connected ones too
  remove,          ///< the operator asks
  nodeOpened,      ///< outcome of the effect openNode
  nodeRefused,     ///< outcome of the effect openNode
  lastClientLeft,  ///< a disabled export has no client any more
  storageFailed,   ///< the node can no longer be trusted
};

enum class ExportEffect {
  none,
  openNode,     ///< open the node; nodeOpened or nodeRefused follows at once
  publish,      ///< offer it to clients
  drain,        ///< offer it to nobody new; lastClientLeft follows
  endSessions,  ///< as drain, and end connected clients after their running requests
};

enum class ExportAnswer {
  none,         ///< nobody asked, or the answer comes from the event that follows
  success,      ///< now
  wrongState,   ///< now
  nodeFailure,  ///< now: why the node was refused
  later,        ///< when the last client has left
};

/// One row: what `event` does to an export in state `from`.
struct ExportTransition {
  Control::ExportState from;
  ExportEvent event;
  std::optional<Control::ExportState> to;  ///< nothing: the export is gone
  ExportEffect effect;
  ExportAnswer answer;
  std::optional<Wanted> wanted;  ///< what the state file remembers from now on; nothing: as before
};

/// Every row once, by state and then by event. Events that cannot happen in a state have no row.
std::span<const ExportTransition> exportTransitions();

/// The row for `state` and `event`; null where there is none.
const ExportTransition* findTransition(Control::ExportState state, ExportEvent event);

/// How an export comes back when the service starts: what it is at first, and what is done.
struct ExportReturn {
  Wanted wanted;
  Control::ExportState state;
  ExportEffect effect;
};

std::span<const ExportReturn> exportReturns();
const ExportReturn& returnOf(Wanted wanted);

/// Both tables as the Markdown that docs/states.md holds.
std::string exportStatesAsMarkdown();

std::string_view toText(Control::ExportState state);
std::string_view toText(ExportEvent event);

}  // namespace Nbdd
