// A client that does not know the password asks the desk whatever it likes: it never gets the server, nor
// drives another out of it.
//
// Input: kind (1 byte, its lower two bits), length of the body (2 bytes), body; and so on. A body that begins
// with "=" has the nonce of the server's last answer put in front, so that exchanges get further.

#include <stdlib.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <span>
#include <string>

#include "nbdd/reservations/desk.h"
#include "nbdd/reservations/limits.h"

namespace {

using namespace Nbdd;
using namespace Nbdd::Reservations;

class NoGate final : public Gate {
  // The desk of this target has a holder from the start, and nobody else ever gets anywhere.
  void clear(std::move_only_function<void()> /*cleared*/) override { std::abort(); }
  void admitOnly(const LeaseId& /*lease*/) override {
    if (admitted_++ > 0) std::abort();
  }
  void admitAll() override { std::abort(); }
  void endHolder(const LeaseId& /*lease*/) override { std::abort(); }

  int admitted_ = 0;
};

struct World {
  World() {
    std::string name = std::filesystem::temp_directory_path() / "reservation-fuzz-XXXXXX";
    if (::mkdtemp(name.data()) == nullptr) std::abort();
    directory = name;
    SavedReservations saved;
    saved.verifier = makeVerifier("open sesame", Limits::fewestIterations);
    saved.granted = GrantedLease{.lease = leaseWith(Key()), .holder = "192.0.2.1"};
    saved.granted->lease.key = saved.verifier->storedKey;  // any that is not known
    saved.granted->lease = leaseWith(saved.granted->lease.key);
    records.emplace(*(store = std::make_unique<Store>(directory)), saved);
    Desk::Options options = Desk::usualOptions();
    options.attempts.atOnce = 1'000'000'000;
    options.attempts.pace = std::chrono::seconds(0);
    desk.emplace(loop, gate, *records, options);
    desk->restore();
  }
  ~World() { std::filesystem::remove_all(directory); }

  std::filesystem::path directory;
  Io::EventLoop loop;
  NoGate gate;
  std::unique_ptr<Store> store;
  std::optional<Records> records;
  std::optional<Desk> desk;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static World world;
  static std::uint64_t clients = 0;
  const Client client{.id = ++clients, .address = "192.0.2.66", .binding = {}};
  Nbd::Reader reader(std::as_bytes(std::span(data, size)));
  std::string lastNonce;
  while (const auto kind = reader.number<std::uint8_t>()) {
    const auto length = reader.number<std::uint16_t>();
    const auto bytes = length ? reader.bytes(*length) : std::nullopt;
    if (!bytes) break;
    Body body(bytes->begin(), bytes->end());
    if (!body.empty() && body[0] == std::byte{'='}) {
      std::string text = "c=biws," + lastNonce + ",p";
      text += Nbd::asText(body);
      body = encodeScramMessage(text);
    }
    const auto asked = static_cast<Nbd::Extension::Kind>(0x10 + (*kind & 3));
    world.desk->ask(client, asked, body, [&](Told told) {
      if (told.lease) std::abort();
      if (!told.body) return;
      if (asked == Kind::beginReserving) {
        const auto begun = decodeReservingBegun(*told.body);
        if (!begun || begun->status != Status::granted) return;
        lastNonce = begun->serverFirst.substr(0, begun->serverFirst.find(','));
      } else if (asked == Kind::finishReserving) {
        const auto reserved = decodeReserved(*told.body);
        if (!reserved || reserved->status != Status::wrongPassword) std::abort();
      } else if (asked == Kind::finishProof) {
        const auto proven = decodeProven(*told.body);
        if (!proven || proven->status == Status::granted) std::abort();
      }
    });
  }
  world.desk->left(client.id);
  if (!world.desk->holder()) std::abort();
  return 0;
}
