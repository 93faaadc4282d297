#pragma once

#include <algorithm>
#include <ranges>

namespace Nbdd {

/// The row of a table of transitions for `from` and `event`; null where there is none.
template <std::ranges::contiguous_range Table, class State, class Event>
auto findRow(const Table& table, State from, Event event) -> std::ranges::range_value_t<Table> const* {
  const auto row = std::ranges::find_if(
      table, [&](const auto& candidate) { return candidate.from == from && candidate.event == event; });
  return row == std::ranges::end(table) ? nullptr : &*row;
}

}  // namespace Nbdd
