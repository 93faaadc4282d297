// What the kernel answers over netlink: read to an end or refused in words, and what was read is in the
// bytes.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <vector>

#include "nbdd/imports/nbd_netlink.h"

namespace {

constexpr int family = 28;
constexpr std::uint32_t sequence = 1;

bool holds(std::span<const std::byte> bytes, std::uint32_t number) {
  const auto wanted = std::as_bytes(std::span(&number, 1));
  return std::ranges::search(bytes, wanted).size() == wanted.size();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // On an allocation of just this size, so that the sanitizer sees a byte too many being read.
  std::vector<std::byte> datagram(size);
  std::ranges::copy(std::as_bytes(std::span(data, size)), datagram.begin());
  Nbdd::NbdNetlink::Answer answer;
  const auto read = Nbdd::NbdNetlink::readAnswer(datagram, family, sequence, answer);
  if (!read && read.error().empty()) std::abort();
  if (answer.index && !holds(datagram, *answer.index)) std::abort();
  if (answer.outcome && (*answer.outcome < 0 || *answer.outcome > 4095)) std::abort();
  if (answer.outcome && !holds(datagram, static_cast<std::uint32_t>(-*answer.outcome))) std::abort();
  return 0;
}
