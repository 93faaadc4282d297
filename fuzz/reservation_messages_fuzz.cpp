// The messages about reservations, and the file that remembers them: whatever is read is written again as the
// same bytes, and nothing else is read. The first byte says which it is.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <span>
#include <string_view>

#include "nbdd/reservations/messages.h"
#include "nbdd/reservations/saved_reservations.h"

namespace {

using namespace Nbdd::Reservations;

template <class Message>
void expectSame(const std::optional<Message>& message, Nbd::Bytes body) {
  if (!message) return;
  const Body written = encode(*message);
  if (Nbd::asText(written) != Nbd::asText(body)) std::abort();
}

void saved(std::string_view text) {
  const auto read = parseReservations(text);
  if (!read) {
    if (read.error().empty()) std::abort();
  } else if (parseReservations(printReservations(*read)) != *read) {
    std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const Nbd::Bytes body = std::as_bytes(std::span(data, size)).subspan(1);
  switch (data[0] % 9) {
    case 0:
      if (const auto message = decodeScramMessage(body); message && *message != Nbd::asText(body))
        std::abort();
      break;
    case 1:
      expectSame(decodeReservingBegun(body), body);
      break;
    case 2:
      expectSame(decodeReserved(body), body);
      break;
    case 3:
      expectSame(decodeProofBegin(body), body);
      break;
    case 4:
      expectSame(decodeNonce(body), body);
      break;
    case 5:
      expectSame(decodeProofFinish(body), body);
      break;
    case 6:
      expectSame(decodeProven(body), body);
      break;
    case 7:
      static_cast<void>(parseServerFirst(Nbd::asText(body)));
      break;
    default:
      saved(Nbd::asText(body));
  }
  return 0;
}
