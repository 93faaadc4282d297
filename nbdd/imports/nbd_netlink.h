#pragma once

#include <netlink/msg.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <expected>
#include <memory>
#include <optional>
#include <span>
#include <string>

/// The words that the kernel's nbd driver understands over generic netlink, and what it answers. Messages
/// only: nothing here is sent, so all of it can be tested on bytes. Numbers as in <linux/nbd-netlink.h>.
namespace Nbdd::NbdNetlink {

inline constexpr char familyName[] = "nbd";

enum class Command : std::uint8_t { connect = 1, disconnect = 2, reconfigure = 3 };

struct FreeMessage {
  void operator()(nl_msg* message) const { nlmsg_free(message); }
};
/// Complete but for sequence number and sender, which the socket adds.
using Message = std::unique_ptr<nl_msg, FreeMessage>;

/// What a device is to be.
struct Settings {
  std::uint64_t size = 0;       ///< bytes
  std::uint32_t blockSize = 0;  ///< bytes, a power of two
  std::uint16_t transmissionFlags = 0;
  std::chrono::seconds deadConnection{};  ///< how long requests wait when there is no connection
  std::string identifier;                 ///< by which it is found again; the kernel keeps it
};

/// Makes a device of `socket`: this process's descriptor of an NBD connection in the transmission phase. The
/// kernel gives a request on it as much time as the server takes. It picks the device and tells its index.
Message connect(int family, const Settings& settings, int socket);
/// Gives the device `index` a new connection instead of its dead one; `identifier` must be the device's.
Message reconfigure(int family, std::uint32_t index, const std::string& identifier, int socket);
/// Ends the device: requests that were not answered fail.
Message disconnect(int family, std::uint32_t index);

/// What the kernel has answered so far.
struct Answer {
  std::optional<int> outcome;          ///< 0, or an errno; nothing: it has not said yet
  std::optional<std::uint32_t> index;  ///< of the device that was connected
};

/// Reads one datagram from the kernel, and adds what it says in answer to the message with this sequence
/// number; messages that answer another are passed over. `family` is that of the driver. An error says in
/// words what is wrong with the datagram.
std::expected<void, std::string> readAnswer(std::span<const std::byte> datagram, int family,
                                            std::uint32_t sequence, Answer& answer);

}  // namespace Nbdd::NbdNetlink
