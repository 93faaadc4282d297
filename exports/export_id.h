#pragma once

#include <cstdint>
#include <optional>

#include "platform/nbd_types.h"
#include "platform/string.h"

namespace Exports {

/// The number that `word` spells, for commands to show. If it spells none, says so in a line and returns
/// nothing.
[[nodiscard]] std::optional<std::uint64_t> readExportNumber(const Ref<String>& word);

/// The export that `number` names: its low 32 bits are the ID, and what is above them is not looked at.
[[nodiscard]] constexpr Services::NBD::Client::Types::ExportID exportID(std::uint64_t number) {
  return static_cast<Services::NBD::Client::Types::ExportID>(static_cast<std::uint32_t>(number));
}

}  // namespace Exports
