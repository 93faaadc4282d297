// A server that knows neither the password nor the lease says whatever it likes to a host that would reserve
// it, or that holds it: the host never believes that it got it, nor that it is still known.
//
// Input: mode (1 byte), then the bodies of the answers, each behind its length (2 bytes); a length of 0xffff
// is a refusal. Two bytes 0, 0 and then "r=" in the answer to the beginning of reserving have the client's
// nonce put behind them, so that exchanges get further.

#include <stdlib.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <span>
#include <string>

#include "nbdd/reservations/dialogues.h"
#include "nbdd/reservations/limits.h"

namespace {

using namespace Nbdd;
using namespace Nbdd::Reservations;

constexpr const char* uuid = "0fb5b4a6-6b4e-4b0c-9f35-0f4bd5a0d8d1";

struct World {
  World() {
    std::string name = std::filesystem::temp_directory_path() / "reservation-fuzz-XXXXXX";
    if (::mkdtemp(name.data()) == nullptr) std::abort();
    directory = name;
    store = std::make_unique<Store>(directory);
  }
  ~World() { std::filesystem::remove_all(directory); }

  std::filesystem::path directory;
  std::unique_ptr<Store> store;
};

Body withNonce(Nbd::Bytes body, const std::string& clientFirst) {
  const std::string nonce = clientFirst.substr(clientFirst.rfind("r=") + 2);
  std::string text(Nbd::asText(body));
  if (text.starts_with(std::string("\0\0r=", 4))) text.insert(4, nonce);
  const std::optional<ServerFirst> first =
      parseServerFirst(std::string_view(text).substr(std::min<std::size_t>(2, text.size())));
  if (first && first->iterations > 2 * Limits::fewestIterations) return {};  // right, but slow
  return encodeScramMessage(text);
}

void talk(Nbd::Extension::Dialogue& dialogue, Nbd::Reader reader) {
  while (const auto question = dialogue.next()) {
    if (question->kind == Nbd::Extension::Kind::hello) {
      const Nbd::Extension::Hello hello{.capabilities = Nbd::Extension::Capability::reservation,
                                        .server = *Nbd::Extension::parseUuid(uuid),
                                        .product = "fuzz"};
      if (!dialogue.take(Nbd::Extension::encodeHello(hello)) || !dialogue.acknowledged()) std::abort();
      continue;
    }
    const auto length = reader.number<std::uint16_t>();
    if (!length) return;
    if (*length == 0xffff) {
      dialogue.refused({.type = Nbd::ReplyType::policy, .text = "no"});
      continue;
    }
    const auto bytes = reader.bytes(std::min<std::size_t>(*length, reader.remaining()));
    Body body(bytes->begin(), bytes->end());
    if (question->kind == Kind::beginReserving) {
      body = withNonce(*bytes, std::string(Nbd::asText(question->body)));
    }
    if (!dialogue.take(body) || !dialogue.acknowledged()) return;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static World world;
  if (size == 0) return 0;
  SavedReservations saved;
  const HeldLease held{
      .server = {.address = "192.0.2.1", .port = 10809}, .uuid = uuid, .lease = leaseWith(Key())};
  if ((data[0] & 1) != 0) saved.held.push_back(held);
  Records records(*world.store, saved);
  Nbd::Extension::Inquiry inquiry({.nothingElse = true});
  const Nbd::Reader reader(std::as_bytes(std::span(data, size)).subspan(1));
  const Channel channel = [] { return ChannelBinding(); };
  if ((data[0] & 2) != 0) {
    ProofDialogue proof(inquiry, records, Purpose::hold, channel);
    talk(proof, reader);
    if (proof.outcome() == ProofDialogue::Outcome::proven) std::abort();
  } else {
    ReservingDialogue reserving(inquiry, records, {.server = held.server, .password = "open sesame"},
                                channel);
    talk(reserving, reader);
    if (reserving.result()) std::abort();
    for (const HeldLease& one : records.held()) {
      if (one != held) std::abort();
    }
  }
  return 0;
}
