#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "diskspec/error.h"
#include "diskspec/fields.h"

/// Numbers with units, as people write them.
namespace DiskSpec {

/// The value of `text`, a value of `kind` (size, number or duration): decimal digits, for sizes and durations
/// with at most 18 decimal places and a unit behind them. Sizes: K, M, G, T, P and E are powers of 1024; "B"
/// and "iB" may follow; letter case does not count. Durations: s, m, h, d and w, of lower or upper case; no
/// unit means seconds. The value has to be whole. Errors have the offset 0.
Result<std::uint64_t> readQuantity(std::string_view text, Kind kind);

/// `value` with the largest unit that needs no decimal places.
std::string printQuantity(std::uint64_t value, Kind kind);

}  // namespace DiskSpec
