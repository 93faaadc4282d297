#pragma once

#include <cstdint>

#include "platform/variant.h"

namespace Server {

/// The entry of `variant` at `index`, counted from 0; valid as long as the Variant is.
///
/// An index from `count` on is a programming error and raises the deliberate fault. Where that is held up,
/// the answer is one default entry that all such calls share: made by the first of them, and there until the
/// tear-down.
[[nodiscard]] const Services::NBD::Client::Types::VariantEntry& entryAt(
    const Services::NBD::Client::Types::Variant& variant, std::uint64_t index);

}  // namespace Server
