#include "nbdd/reservations/saved_reservations.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>

#include "nbdd/reservations/digest.h"
#include "nbdd/reservations/limits.h"
#include "nbdd/reservations/reservation_store.h"
#include "tests/support/service_process.h"

namespace Nbdd::Reservations {
namespace {

SavedReservations everything() {
  SavedReservations saved;
  saved.verifier = makeVerifier("open sesame", Limits::fewestIterations);
  saved.granted = GrantedLease{.lease = leaseWith(Key(randomOctets<Key::size>())), .holder = "192.0.2.7"};
  saved.held = {{.server = {.address = "192.0.2.1", .port = 10809},
                 .uuid = "0fb5b4a6-6b4e-4b0c-9f35-0f4bd5a0d8d1",
                 .lease = leaseWith(Key(randomOctets<Key::size>()))},
                {.server = {.address = "fe80::1%2", .port = 1},
                 .uuid = "1fb5b4a6-6b4e-4b0c-9f35-0f4bd5a0d8d1",
                 .lease = leaseWith(Key(randomOctets<Key::size>()))}};
  return saved;
}

TEST(SavedReservations, AreReadAsPrinted) {
  const SavedReservations saved = everything();
  EXPECT_EQ(parseReservations(printReservations(saved)), saved);
  EXPECT_EQ(parseReservations(printReservations({})), SavedReservations{});
}

TEST(SavedReservations, NothingElseIsRead) {
  const std::string text = printReservations(everything());
  for (std::size_t length = 0; length + 1 < text.size(); ++length) {
    EXPECT_FALSE(parseReservations(text.substr(0, length))) << length;
  }
  const auto changed = [&](std::string_view from, std::string_view to) {
    std::string other = text;
    other.replace(other.find(from), from.size(), to);
    return other;
  };
  EXPECT_FALSE(parseReservations(changed("\"version\":1", "\"version\":2")));
  EXPECT_FALSE(parseReservations(changed("org.talvek.NBD.reservations", "org.talvek.NBD.state")));
  EXPECT_FALSE(parseReservations(changed("\"iterations\":4096", "\"iterations\":1")));
  EXPECT_FALSE(parseReservations(changed("\"port\":10809", "\"port\":0")));
  EXPECT_FALSE(parseReservations(changed("\"port\":10809", "\"port\":65536")));
  EXPECT_FALSE(parseReservations(changed("1fb5b4a6", "0fb5b4a6"))) << "two leases of one server";
  EXPECT_FALSE(parseReservations(changed("\"holder\":\"192.0.2.7\"", "\"holder\":\"\"")));
  SavedReservations withoutPassword = everything();
  withoutPassword.verifier.reset();
  EXPECT_FALSE(parseReservations(printReservations(withoutPassword)));
  SavedReservations torn = everything();
  torn.granted->lease.id[0] ^= std::byte{1};
  EXPECT_FALSE(parseReservations(printReservations(torn))) << "the id does not follow from the key";
}

TEST(ReservationStore, KeepsAndProtectsWhatIsSaved) {
  const Testing::TemporaryDirectory directory;
  Store store(directory.path());
  EXPECT_EQ(store.load(), SavedReservations{});
  const SavedReservations saved = everything();
  ASSERT_TRUE(store.save(saved));
  EXPECT_EQ(Store(directory.path()).load(), saved);
  struct stat status{};
  ASSERT_EQ(::stat(store.file().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0600U);
}

TEST(ReservationStore, LeavesADamagedFileAlone) {
  const Testing::TemporaryDirectory directory;
  Store store(directory.path());
  std::ofstream(store.file()) << "{";
  const auto loaded = store.load();
  ASSERT_FALSE(loaded);
  EXPECT_NE(loaded.error().find(store.file().native()), std::string::npos);
}

TEST(ReservationStore, AFailedSaveChangesNothing) {
  const Testing::TemporaryDirectory directory;
  Store store(directory.path());
  ASSERT_TRUE(store.save(everything()));
  const auto before = store.load();
  std::filesystem::create_directory(store.file().native() + ".new");
  const auto saved = store.save({});
  ASSERT_FALSE(saved);
  EXPECT_EQ(saved.error().code, Control::FailureCode::stateNotSaved);
  EXPECT_EQ(store.load(), before);
}

}  // namespace
}  // namespace Nbdd::Reservations
