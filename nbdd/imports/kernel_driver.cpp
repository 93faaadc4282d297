#include "nbdd/imports/kernel_driver.h"

#include <fmt/core.h>
#include <linux/capability.h>
#include <netlink/genl/ctrl.h>
#include <netlink/genl/genl.h>
#include <netlink/netlink.h>
#include <netlink/socket.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <fstream>
#include <limits>
#include <memory>
#include <set>
#include <span>
#include <sstream>
#include <string_view>
#include <system_error>
#include <utility>

namespace Nbdd::KernelDriver {

namespace fs = std::filesystem;

fs::path pathOf(std::uint32_t index) { return fmt::format("/dev/nbd{}", index); }

namespace {

using NbdNetlink::Answer;

constexpr unsigned sectorSize = 512;  // in which /sys counts

bool mayAdministrate() {
  __user_cap_header_struct header{.version = _LINUX_CAPABILITY_VERSION_3, .pid = 0};
  std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3> sets{};
  if (::syscall(SYS_capget, &header, sets.data()) != 0) return false;
  return (sets[CAP_TO_INDEX(CAP_SYS_ADMIN)].effective & CAP_TO_MASK(CAP_SYS_ADMIN)) != 0;
}

// --- Asking over netlink

struct FreeSocket {
  void operator()(nl_sock* socket) const { nl_socket_free(socket); }
};
using Socket = std::unique_ptr<nl_sock, FreeSocket>;

std::string errnoText(int error) { return std::generic_category().message(error); }

std::string describe(int error) {
  switch (error) {
    case EPERM:
      return "it wants CAP_SYS_ADMIN in the host's own user namespace";
    case EBUSY:
      return "the device is in use";
    default:
      return errnoText(error);
  }
}

/// Asks one question. The kernel has answered before sending it returns, so nothing has to be waited for.
class Question {
 public:
  std::expected<void, std::string> open() {
    socket_.reset(nl_socket_alloc());
    if (!socket_) return std::unexpected("there is no memory for a netlink socket");
    if (const int error = genl_connect(socket_.get()); error != 0) return failed("netlink", error);
    family_ = genl_ctrl_resolve(socket_.get(), NbdNetlink::familyName);
    if (family_ < 0) return failed("the kernel's nbd driver is not reached", family_);
    return {};
  }

  int family() const { return family_; }

  std::expected<Answer, std::string> ask(nl_msg* message) {
    nl_complete_msg(socket_.get(), message);
    const std::uint32_t sequence = nlmsg_hdr(message)->nlmsg_seq;
    if (const int error = nl_send(socket_.get(), message); error < 0) return failed("netlink", error);
    Answer answer;
    while (!answer.outcome) {
      std::array<std::byte, maximumAnswer> datagram;
      const ssize_t length =
          ::recv(nl_socket_get_fd(socket_.get()), datagram.data(), datagram.size(), MSG_DONTWAIT | MSG_TRUNC);
      if (length < 0 && errno == EINTR) continue;
      if (length < 0) return std::unexpected("the kernel does not answer: " + errnoText(errno));
      if (static_cast<std::size_t>(length) > datagram.size()) {
        return std::unexpected("the kernel's answer is longer than any that is known");
      }
      const auto read = NbdNetlink::readAnswer(std::span(datagram).first(static_cast<std::size_t>(length)),
                                               family_, sequence, answer);
      if (!read) return std::unexpected(read.error());
    }
    if (*answer.outcome != 0) return std::unexpected(describe(*answer.outcome));
    return answer;
  }

 private:
  /// An acknowledgement repeats the question.
  static constexpr std::size_t maximumAnswer = 8192;

  static std::unexpected<std::string> failed(std::string_view what, int error) {
    return std::unexpected(fmt::format("{}: {}", what, nl_geterror(error)));
  }

  Socket socket_;
  int family_ = 0;
};

template <typename Make>
std::expected<Answer, std::string> ask(const Make& make) {
  Question question;
  if (const auto opened = question.open(); !opened) return std::unexpected(opened.error());
  const NbdNetlink::Message message = make(question.family());
  return question.ask(message.get());
}

// --- What is seen of devices

fs::path block(std::uint32_t index) { return fmt::format("/sys/block/nbd{}", index); }

std::optional<std::uint64_t> numberIn(std::string_view text) {
  std::uint64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number;
}

std::optional<std::string> firstLine(const fs::path& path) {
  std::ifstream file(path);
  std::string line;
  if (!std::getline(file, line)) return std::nullopt;
  return line;
}

/// Numbers as "major:minor" of the device and of its partitions.
std::set<std::string> numbersOf(std::uint32_t index) {
  std::set<std::string> numbers;
  numbers.insert(firstLine(block(index) / "dev").value_or(""));
  std::error_code error;
  for (fs::directory_iterator each(block(index), error), end; !error && each != end; each.increment(error)) {
    std::error_code ignored;
    if (fs::exists(each->path() / "partition", ignored)) {
      numbers.insert(firstLine(each->path() / "dev").value_or(""));
    }
  }
  return numbers;
}

/// Whether `path` is the device's or a partition's. By name: looking at what programs have open could wait
/// for whatever it is.
bool isPathOf(std::uint32_t index, std::string_view path) {
  const std::string whole = pathOf(index);
  return path.starts_with(whole) && (path.size() == whole.size() || path[whole.size()] == 'p');
}

bool hasOpen(const fs::path& process, std::uint32_t index) {
  std::error_code error;
  for (fs::directory_iterator each(process / "fd", error), end; !error && each != end;
       each.increment(error)) {
    std::error_code gone;
    if (isPathOf(index, fs::read_symlink(each->path(), gone).native())) return true;
  }
  return false;
}

/// Lines of mountinfo that name one of the devices.
std::size_t mountsIn(const fs::path& file, const std::set<std::string>& numbers) {
  std::size_t count = 0;
  std::ifstream mounts(file);
  for (std::string line; std::getline(mounts, line);) {
    std::istringstream fields(line);
    std::string id;
    std::string parent;
    std::string device;
    if (fields >> id >> parent >> device && numbers.contains(device)) ++count;
  }
  return count;
}

std::size_t entriesOf(const fs::path& directory) {
  std::error_code error;
  std::size_t count = 0;
  for (fs::directory_iterator each(directory, error), end; !error && each != end; each.increment(error)) {
    ++count;
  }
  return count;
}

std::size_t swapAreasOn(std::uint32_t index) {
  std::size_t count = 0;
  std::ifstream swaps("/proc/swaps");
  for (std::string line; std::getline(swaps, line);) {
    if (isPathOf(index, std::string_view(line).substr(0, line.find_first_of(" \t")))) ++count;
  }
  return count;
}

}  // namespace

std::optional<std::string> missing() {
  std::error_code ignored;
  if (!fs::exists("/sys/module/nbd", ignored)) return "the kernel's nbd driver: modprobe nbd";
  if (!mayAdministrate()) return "root or CAP_SYS_ADMIN";
  return std::nullopt;
}

std::expected<std::uint32_t, std::string> connect(const NbdNetlink::Settings& settings, int socket) {
  const auto answer = ask([&](int family) { return NbdNetlink::connect(family, settings, socket); });
  if (!answer) return std::unexpected(answer.error());
  if (!answer->index) return std::unexpected("the kernel does not tell the device's number");
  return *answer->index;
}

std::expected<void, std::string> reconfigure(std::uint32_t index, const std::string& identifier, int socket) {
  const auto answer =
      ask([&](int family) { return NbdNetlink::reconfigure(family, index, identifier, socket); });
  if (!answer) return std::unexpected(answer.error());
  return {};
}

std::expected<void, std::string> disconnect(std::uint32_t index) {
  const auto answer = ask([&](int family) { return NbdNetlink::disconnect(family, index); });
  if (!answer) return std::unexpected(answer.error());
  return {};
}

std::vector<std::uint32_t> find(const std::string& identifier) {
  std::vector<std::uint32_t> found;
  std::error_code error;
  for (fs::directory_iterator each("/sys/block", error), end; !error && each != end; each.increment(error)) {
    const auto index = indexOf(each->path());
    if (index && firstLine(each->path() / "backend") == identifier) found.push_back(*index);
  }
  return found;
}

std::optional<Device> look(std::uint32_t index) {
  std::error_code ignored;
  // The driver shows who has connected the device, for as long as it is connected.
  if (!fs::exists(block(index) / "pid", ignored)) return std::nullopt;
  const auto sectors = numberIn(firstLine(block(index) / "size").value_or(""));
  if (!sectors) return std::nullopt;
  return Device{.size = *sectors * sectorSize,
                .readOnly = firstLine(block(index) / "ro").value_or("0") != "0"};
}

std::optional<std::uint32_t> indexOf(const fs::path& path) {
  constexpr std::string_view prefix = "nbd";
  const std::string name = path.filename();
  if (!name.starts_with(prefix)) return std::nullopt;
  const auto number = numberIn(std::string_view(name).substr(prefix.size()));
  if (!number || *number > std::numeric_limits<std::uint32_t>::max()) return std::nullopt;
  return static_cast<std::uint32_t>(*number);
}

void tune(std::uint32_t index, const Tuning& tuning) {
  constexpr std::size_t kibibyte = 1024;
  const fs::path queue = block(index) / "queue";
  std::ofstream(queue / "io_timeout") << tuning.requestTick.count();
  if (const auto limit = numberIn(firstLine(queue / "max_hw_sectors_kb").value_or(""))) {
    std::ofstream(queue / "max_sectors_kb")
        << std::min<std::uint64_t>(*limit, tuning.largestRequest / kibibyte);
  }
  std::ofstream(queue / "read_ahead_kb") << tuning.readAhead / kibibyte;
}

std::size_t usersOf(std::uint32_t index) {
  const std::set<std::string> numbers = numbersOf(index);
  std::size_t users = entriesOf(block(index) / "holders") + swapAreasOn(index);
  std::set<fs::path> mountNamespaces;
  std::error_code error;
  for (fs::directory_iterator each("/proc", error), end; !error && each != end; each.increment(error)) {
    if (!numberIn(each->path().filename().native())) continue;
    if (hasOpen(each->path(), index)) ++users;
    std::error_code gone;
    const fs::path mounts = fs::read_symlink(each->path() / "ns" / "mnt", gone);
    if (!gone && mountNamespaces.insert(mounts).second)
      users += mountsIn(each->path() / "mountinfo", numbers);
  }
  return users;
}

}  // namespace Nbdd::KernelDriver
