#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <expected>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "nbdd/imports/nbd_netlink.h"

/// The kernel's nbd driver: what it is told over netlink, and what is seen of its devices in /sys and /proc.
/// Any thread.
namespace Nbdd::KernelDriver {

/// What this host or this process lacks to use it; nothing if it lacks nothing. Does not block.
std::optional<std::string> missing();

/// Makes a device; returns its index. An error is told in words.
std::expected<std::uint32_t, std::string> connect(const NbdNetlink::Settings& settings, int socket);
/// As NbdNetlink::reconfigure. A device that has no dead connection takes none: the other end of `socket` is
/// then closed.
std::expected<void, std::string> reconfigure(std::uint32_t index, const std::string& identifier, int socket);
/// Waits for whatever hands data to the device's connection now: end that connection first.
std::expected<void, std::string> disconnect(std::uint32_t index);

/// The devices that have this identifier: one at most that can be given a connection, and those that were
/// disconnected and that somebody still has open.
std::vector<std::uint32_t> find(const std::string& identifier);

/// What is seen of a device that is connected or waits for a connection.
struct Device {
  std::uint64_t size = 0;  ///< bytes
  bool readOnly = false;
};
/// Nothing: it is not connected, and nobody has it open any more since it was.
std::optional<Device> look(std::uint32_t index);

std::filesystem::path pathOf(std::uint32_t index);
/// The device that a path like that of `pathOf` names.
std::optional<std::uint32_t> indexOf(const std::filesystem::path& path);

/// What the kernel should know of the device beyond what its driver is told. May wait for requests that are
/// under way. What cannot be set stays as it is.
struct Tuning {
  std::chrono::milliseconds requestTick{};  ///< how often the driver looks after requests without an answer
  std::size_t largestRequest = 0;           ///< bytes; the kernel may set a lower bound
  std::size_t readAhead = 0;                ///< bytes
};
void tune(std::uint32_t index, const Tuning& tuning);

/// How many programs, mounts, swap areas and other devices use the device or a partition of it, as far as
/// this process is allowed to see. Reads all of /proc: for questions that people ask.
std::size_t usersOf(std::uint32_t index);

}  // namespace Nbdd::KernelDriver
