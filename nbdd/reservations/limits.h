#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

/// Every bound on what reservations make the service hold or wait for, with its reason.
namespace Nbdd::Limits {

/// Longest password in bytes, and one message of the exchange that shows that it is known: far beyond what
/// anybody types, and small enough to be handled without a thought.
inline constexpr std::size_t passwordLength = 512;
inline constexpr std::size_t scramMessage = 1024;

/// How often the password is hashed before it is used: some 15 ms of a processor of 2020, which the operator
/// who types the right one does not notice (a reservation shall take less than 100 ms in all), and which
/// whoever tries millions of stolen or overheard ones pays for each.
inline constexpr std::uint32_t passwordIterations = 32'768;

/// What we accept from a server: fewer than RFC 7677 demands would make an overheard exchange too easy to
/// try passwords on, and more would keep our processor busy for somebody else's pleasure.
inline constexpr std::uint32_t fewestIterations = 4096;
inline constexpr std::uint32_t mostIterations = 1'000'000;

/// Attempts of one network to give the password: a handful at once for whoever mistypes, then one in five
/// seconds, which is 17,280 in a day. Nobody is made to wait for longer than a client waits for an answer.
inline constexpr int passwordAttempts = 5;
inline constexpr std::chrono::seconds passwordPace{5};
inline constexpr std::chrono::seconds passwordWait{10};

/// Networks whose attempts are counted apart, half a megabyte in all.
inline constexpr std::size_t passwordNetworks = 4096;

/// How long a lease lasts without being renewed, if nothing is configured, and what may be configured. A
/// minute leaves room for a restart of either side; a week is for ever.
inline constexpr std::chrono::seconds usualLease{300};
inline constexpr std::chrono::seconds shortestLease{1};
inline constexpr std::chrono::seconds longestLease{7 * 24 * 3600};

/// Leases of other servers that one host holds, and the length of the file that remembers them.
inline constexpr std::size_t heldLeases = 1024;
inline constexpr std::size_t reservationsLength = std::size_t{8} * 1024 * 1024;

/// Remote servers that are being asked about their reservation at the same time; each takes a thread for as
/// long as dialTime.
inline constexpr std::size_t reservationErrands = 64;

/// Pauses before a lease that could not be renewed is tried again, doubling.
inline constexpr std::chrono::milliseconds renewalRetryFirst{200};
inline constexpr std::chrono::milliseconds renewalRetryLongest{5'000};

}  // namespace Nbdd::Limits
