#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "control/records.h"
#include "nbdd/state/saved_state.h"

// The life of an import, as one table, in the way of export_states.h: for each state and event the next
// state, what has to be done, what the operator is told, why the import is disabled if that is where it goes,
// and what the state file remembers. docs/import-states.md shows the same table.

namespace Nbdd {

enum class ImportEvent {
  enable,          ///< the operator asks
  disable,         ///< the operator asks, and no program uses the node
  disableInUse,    ///< the operator asks, and a program uses the node
  disableByForce,  ///< the operator asks, whoever uses the node
  remove,          ///< the operator asks
  serverReached,   ///< there is a connection, and the nodes are there
  enableFailed,    ///< the first attempt has failed, and an operator waits for it
  serverLost,      ///< there is no connection any more, or another attempt has failed
  serverUnusable,  ///< the server breaks the protocol again and again
  nodesFailed,     ///< no node can be made
  notSaved,        ///< that it is enabled could not be saved
  ended,           ///< outcome of the effect end
};

enum class ImportEffect {
  none,
  connect,  ///< connect to the server; serverReached, enableFailed or serverLost follows
  end,      ///< take nodes and connections away; ended follows
};

enum class ImportAnswer {
  none,        ///< nobody asked, or nobody is told yet
  success,     ///< now
  wrongState,  ///< now
  inUse,       ///< now: importInUse
  later,       ///< when the outcome is known; success if nothing is under way
  allSuccess,  ///< everybody who waits: success
  allFailure,  ///< everybody who waits, as soon as it has ended: what went wrong
};

/// One row: what `event` does to an import in state `from`.
struct ImportTransition {
  Control::ImportState from;
  ImportEvent event;
  std::optional<Control::ImportState> to;  ///< nothing: the import is gone
  ImportEffect effect;
  ImportAnswer answer;
  std::optional<Control::ImportDisableReason> reason;  ///< why it is about to be disabled
  std::optional<Wanted> wanted;  ///< what the state file remembers from now on; nothing: as before
};

/// Every row once, by state and then by event. Events without a row cannot happen in that state, or are too
/// old to matter.
std::span<const ImportTransition> importTransitions();

/// The row for `state` and `event`; null where there is none.
const ImportTransition* findTransition(Control::ImportState state, ImportEvent event);

/// How an import comes back when the service starts: what it is at first, and what is done.
struct ImportReturn {
  Wanted wanted;
  Control::ImportState state;
  ImportEffect effect;
};

std::span<const ImportReturn> importReturns();
const ImportReturn& importReturnOf(Wanted wanted);

/// Both tables as the Markdown that docs/import-states.md holds.
std::string importStatesAsMarkdown();

std::string_view toText(Control::ImportState state);
std::string_view toText(ImportEvent event);

}  // namespace Nbdd
