#pragma once

#include <expected>
#include <filesystem>
#include <string>

#include "control/failure.h"
#include "nbdd/reservations/saved_reservations.h"

namespace Nbdd::Reservations {

/// Keeps what reservations leave behind in a file of its own beside the service's state: it holds keys, and
/// the state's file is one that operators look into and send around.
class Store {
 public:
  /// `directory` is there and ours, and a lock keeps other instances out of it.
  explicit Store(std::filesystem::path directory) : directory_(std::move(directory)) {}

  std::filesystem::path file() const { return directory_ / "reservations.json"; }

  /// What was saved; nothing reserved when nothing ever was. A file that is damaged or of a newer version is
  /// a failure, one sentence that says what to do, and stays as it is.
  std::expected<SavedReservations, std::string> load();

  /// When this returns without a failure, `saved` is what the next `load` finds, come what may. After a
  /// failure (stateNotSaved) what was saved before still holds.
  std::expected<void, Control::Failure> save(const SavedReservations& saved);

 private:
  std::filesystem::path directory_;
  std::string lastText_;  ///< what was last saved for sure
};

}  // namespace Nbdd::Reservations
