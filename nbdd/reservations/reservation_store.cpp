#include "nbdd/reservations/reservation_store.h"

#include <fmt/core.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "nbdd/config/read_file.h"
#include "nbdd/reservations/limits.h"
#include "nbdd/state/replace_file.h"

namespace Nbdd::Reservations {

namespace {

std::string words(int error) { return std::generic_category().message(error); }

}  // namespace

std::expected<SavedReservations, std::string> Store::load() {
  auto text = readFile(file(), Limits::reservationsLength);
  if (!text) {
    if (text.error() == ENOENT) return SavedReservations{};
    return std::unexpected(fmt::format("the file {} cannot be read ({}): correct that, or move it away",
                                       file().native(), words(text.error())));
  }
  auto saved = parseReservations(*text);
  if (!saved) {
    return std::unexpected(
        fmt::format("the file {} {}: put a good copy in its place, or move it away to begin without password "
                    "and reservations",
                    file().native(), saved.error()));
  }
  lastText_ = std::move(*text);
  return std::move(*saved);
}

std::expected<void, Control::Failure> Store::save(const SavedReservations& saved) {
  std::string text = printReservations(saved);
  if (text == lastText_) return {};
  bool renamed = false;
  const int error = replaceFile(directory_, file().filename(), text, renamed);
  if (error == 0) {
    lastText_ = std::move(text);
    return {};
  }
  // The new text may now be the one that a restart finds, although the change is about to be undone.
  if (renamed) {
    const std::string before = lastText_.empty() ? printReservations({}) : lastText_;
    static_cast<void>(replaceFile(directory_, file().filename(), before, renamed));
  }
  return std::unexpected(
      Control::Failure{Control::FailureCode::stateNotSaved,
                       fmt::format("the file {} could not be written ({}), so nothing was changed",
                                   file().native(), words(error))});
}

}  // namespace Nbdd::Reservations
