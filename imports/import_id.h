#pragma once

#include <cstdint>
#include <optional>

#include "platform/nbd_types.h"
#include "platform/string.h"

namespace Imports {

/// Reads the number in `word` and opens the progress line "`action`number... " with it. If it is none, says
/// so in a line and returns nothing.
///
/// The whole number is shown, and its low 32 bits are the ID: what is above them is not looked at.
[[nodiscard]] std::optional<Services::NBD::Client::Types::ImportID> announceImport(const char* action,
                                                                                   const Ref<String>& word);

}  // namespace Imports
