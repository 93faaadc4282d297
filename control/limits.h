#pragma once

#include <chrono>
#include <cstddef>

/// Every bound on what a peer on the control socket can make us hold or wait for, with its reason.
namespace Control::Limits {

/// Longest request. The longest that makes sense carries a path and a name of 4096 bytes each, of which JSON
/// may make six times as much ("\u0001"): 48 KiB and the frame around it.
inline constexpr std::size_t requestLength = std::size_t{64} * 1024;

/// Longest reply that a client takes. A million exports are listed in some 10 MB.
inline constexpr std::size_t replyLength = std::size_t{64} * 1024 * 1024;

/// Deepest nesting of JSON arrays and objects, in either direction. Records need eight levels and every
/// nested Variant two more, so Variants may nest some twenty times.
inline constexpr std::size_t depth = 64;

/// Connections of the control socket that are open at the same time. A host has a few operators and some
/// programs that watch; the bound keeps what they can make the service hold to tens of megabytes.
inline constexpr std::size_t connections = 256;

/// Replies that wait for one client before no further call of it is begun.
inline constexpr std::size_t queuedReplies = std::size_t{64} * 1024;

/// Calls of one connection that are done before the others have their turn.
inline constexpr std::size_t callsPerTurn = 64;

/// How long a client may leave its replies unread before it is cut off.
inline constexpr std::chrono::seconds stalledClient{10};

}  // namespace Control::Limits
