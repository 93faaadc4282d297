#include "nbdd/imports/nbd_netlink.h"

#include <netlink/attr.h>
#include <netlink/genl/genl.h>

#include <cstring>
#include <new>
#include <vector>

#include "nbd/contract.h"

namespace Nbdd::NbdNetlink {

namespace {

constexpr std::uint8_t version = 1;

// Attributes.
constexpr int attributeIndex = 1;
constexpr int attributeSize = 2;
constexpr int attributeBlockSize = 3;
constexpr int attributeTimeout = 4;
constexpr int attributeServerFlags = 5;
constexpr int attributeSockets = 7;
constexpr int attributeDeadConnection = 8;
constexpr int attributeIdentifier = 10;
// Inside of attributeSockets, and inside of each of its items.
constexpr int attributeSocketItem = 1;
constexpr int attributeSocketDescriptor = 1;

constexpr int largestErrno = 4095;

/// Adding to a message fails only if it has no room; a page, which it has, is more than any of ours takes.
void added(int result) { Nbd::require(result == 0); }

Message begin(int family, Command command) {
  Message message(nlmsg_alloc());
  if (!message) throw std::bad_alloc();
  Nbd::require(genlmsg_put(message.get(), NL_AUTO_PORT, NL_AUTO_SEQ, family, 0, NLM_F_REQUEST | NLM_F_ACK,
                           static_cast<std::uint8_t>(command), version) != nullptr);
  return message;
}

void putSocket(nl_msg* message, int socket) {
  nlattr* const sockets = nla_nest_start(message, attributeSockets);
  nlattr* const item = nla_nest_start(message, attributeSocketItem);
  added(nla_put_u32(message, attributeSocketDescriptor, static_cast<std::uint32_t>(socket)));
  nla_nest_end(message, item);
  nla_nest_end(message, sockets);
}

/// The attribute's number, if the connect answer has one and it is whole.
std::expected<std::uint32_t, std::string> indexIn(nlmsghdr* header) {
  if (!genlmsg_valid_hdr(header, 0)) return std::unexpected("the kernel's answer is cut short");
  genlmsghdr* const message = genlmsg_hdr(header);
  if (message->cmd != static_cast<std::uint8_t>(Command::connect)) {
    return std::unexpected("the kernel answers another question");
  }
  // Looked for by hand: a malformed neighbour must not hide behind a parser that stops there.
  nlattr* attribute = genlmsg_attrdata(message, 0);
  int left = genlmsg_attrlen(message, 0);
  std::optional<std::uint32_t> index;
  for (; nla_ok(attribute, left) != 0; attribute = nla_next(attribute, &left)) {
    if (nla_type(attribute) != attributeIndex) continue;
    if (nla_len(attribute) != sizeof(std::uint32_t) || index) {
      return std::unexpected("the kernel tells the device's number in a form that is not known");
    }
    index = nla_get_u32(attribute);
  }
  if (left > 0) return std::unexpected("the kernel's answer is cut short");
  if (!index) return std::unexpected("the kernel does not tell the device's number");
  return *index;
}

}  // namespace

Message connect(int family, const Settings& settings, int socket) {
  Message message = begin(family, Command::connect);
  nl_msg* const to = message.get();
  added(nla_put_u64(to, attributeSize, settings.size));
  added(nla_put_u64(to, attributeBlockSize, settings.blockSize));
  added(nla_put_u64(to, attributeServerFlags, settings.transmissionFlags));
  // None: a slow server is waited for. It has to be said, or that of the device's last user holds.
  added(nla_put_u64(to, attributeTimeout, 0));
  added(
      nla_put_u64(to, attributeDeadConnection, static_cast<std::uint64_t>(settings.deadConnection.count())));
  added(nla_put_string(to, attributeIdentifier, settings.identifier.c_str()));
  putSocket(to, socket);
  return message;
}

Message reconfigure(int family, std::uint32_t index, const std::string& identifier, int socket) {
  Message message = begin(family, Command::reconfigure);
  added(nla_put_u32(message.get(), attributeIndex, index));
  added(nla_put_string(message.get(), attributeIdentifier, identifier.c_str()));
  putSocket(message.get(), socket);
  return message;
}

Message disconnect(int family, std::uint32_t index) {
  Message message = begin(family, Command::disconnect);
  added(nla_put_u32(message.get(), attributeIndex, index));
  return message;
}

std::expected<void, std::string> readAnswer(std::span<const std::byte> datagram, int family,
                                            std::uint32_t sequence, Answer& answer) {
  // Aligned, and what libnl reads may be written to by it.
  std::vector<std::uint32_t> words((datagram.size() + 3) / 4);
  if (!datagram.empty()) std::memcpy(words.data(), datagram.data(), datagram.size());
  auto* header = reinterpret_cast<nlmsghdr*>(words.data());
  int left = static_cast<int>(datagram.size());
  for (; nlmsg_ok(header, left) != 0; header = nlmsg_next(header, &left)) {
    if (header->nlmsg_seq != sequence) continue;
    if (header->nlmsg_type == NLMSG_ERROR) {
      if (nlmsg_datalen(header) < static_cast<int>(sizeof(nlmsgerr))) {
        return std::unexpected("the kernel's answer is cut short");
      }
      const auto* const outcome = static_cast<const nlmsgerr*>(nlmsg_data(header));
      if (outcome->error > 0 || outcome->error < -largestErrno) {
        return std::unexpected("the kernel fails with an error that is none");
      }
      answer.outcome = -outcome->error;
    } else if (header->nlmsg_type == family) {
      const auto index = indexIn(header);
      if (!index) return std::unexpected(index.error());
      answer.index = *index;
    }
  }
  if (left > 0) return std::unexpected("the kernel's answer is cut short");
  return {};
}

}  // namespace Nbdd::NbdNetlink
