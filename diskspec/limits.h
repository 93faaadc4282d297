#pragma once

#include <cstddef>
#include <cstdint>

/// Every bound on what an expression can make us hold or compute, with its reason. Expressions come from
/// other hosts.
namespace DiskSpec::Limits {

/// Longest expression in bytes, as it is given and in its canonical spelling. People write one line; programs
/// may list a hundred UUIDs. It fits into a request of the control socket even if every byte is escaped.
inline constexpr std::size_t textLength = 8192;

/// Parentheses and negations around a condition. The parser, the printer and the evaluation call themselves
/// once for each.
inline constexpr std::size_t depth = 64;

/// Conditions and the operators that connect them, together: what an evaluation visits at most once for each
/// export.
inline constexpr std::size_t nodes = 512;

/// Values in one list.
inline constexpr std::size_t listLength = 256;

/// Patterns in one expression, and the bytes of each.
inline constexpr std::size_t patterns = 32;
inline constexpr std::size_t patternLength = 512;

/// Memory that matching one pattern may take, in bytes: its program, and the states of its automaton, which
/// are thrown away and made again when there are too many. A pattern whose program alone is larger
/// (repetitions within repetitions) does not compile.
inline constexpr std::int64_t patternMemory = std::int64_t{256} * 1024;

}  // namespace DiskSpec::Limits
