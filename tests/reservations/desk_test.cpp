#include "nbdd/reservations/desk.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "tests/reservations/negotiation.h"

namespace Nbdd::Reservations {
namespace {

using namespace std::chrono_literals;
using Control::FailureCode;
using Outcome = ProofDialogue::Outcome;

constexpr const char* password = "open sesame";

class DeskTest : public ::testing::Test {
 protected:
  FailureCode reserveFails(FakeHost& host, const std::string& word,
                           const std::string& address = "192.0.2.7") {
    Reserving reserving(server_, host, word, address);
    const auto result = reserving.run(server_);
    EXPECT_FALSE(result);
    return result ? FailureCode() : result.error().code;
  }

  void reserve(FakeHost& host, const std::string& address = "192.0.2.7") {
    Reserving reserving(server_, host, password, address);
    const auto result = reserving.run(server_);
    ASSERT_TRUE(result) << result.error().message;
    EXPECT_EQ(*result, 1h);
  }

  Outcome prove(FakeHost& host, Purpose purpose = Purpose::hold) {
    return Proving(server_, host, purpose).run();
  }

  FakeServer server_;
  FakeHost alice_;
  FakeHost bob_;
};

TEST_F(DeskTest, AServerWithoutPasswordCannotBeReserved) {
  EXPECT_EQ(reserveFails(alice_, password), FailureCode::reservationDisabled);
  EXPECT_EQ(server_.desk->holder().error().code, FailureCode::notReserved);
  EXPECT_FALSE(alice_.records.holdsAny());
}

TEST_F(DeskTest, WhoKnowsThePasswordGetsTheServerForItself) {
  ASSERT_FALSE(server_.setPassword(password));
  reserve(alice_);
  const std::optional<HeldLease> held = alice_.records.heldOf(server_.uuid);
  ASSERT_TRUE(held);
  EXPECT_EQ(server_.admitted, toText(held->lease.id));
  const auto holder = server_.desk->holder();
  ASSERT_TRUE(holder);
  EXPECT_EQ(holder->endpoint.address, "192.0.2.7");
}

TEST_F(DeskTest, AWrongPasswordIsToldAndLeavesNothing) {
  ASSERT_FALSE(server_.setPassword(password));
  EXPECT_EQ(reserveFails(alice_, "guess"), FailureCode::wrongPassword);
  EXPECT_FALSE(alice_.records.holdsAny());
  EXPECT_EQ(alice_.store.load(), SavedReservations{});
  EXPECT_EQ(server_.admitted, server_.everybody);
}

TEST_F(DeskTest, NothingIsGrantedBeforeTheLastClientHasEnded) {
  ASSERT_FALSE(server_.setPassword(password));
  Reserving reserving(server_, alice_, password);
  EXPECT_FALSE(reserving.negotiation.goOn());
  EXPECT_EQ(server_.admitted, server_.nobody);
  EXPECT_FALSE(server_.desk->holder());
  EXPECT_FALSE(server_.records->read().granted);
  server_.letClear();
  EXPECT_TRUE(reserving.negotiation.goOn());
  EXPECT_TRUE(reserving.dialogue.result());
}

TEST_F(DeskTest, OneAtATime) {
  ASSERT_FALSE(server_.setPassword(password));
  Reserving first(server_, alice_, password);
  first.negotiation.goOn();
  EXPECT_EQ(reserveFails(bob_, password), FailureCode::reservedByOther);
  server_.letClear();
  EXPECT_EQ(reserveFails(bob_, password), FailureCode::reservedByOther);
  EXPECT_FALSE(bob_.records.holdsAny());
  EXPECT_EQ(prove(alice_), Outcome::proven);
}

TEST_F(DeskTest, AWrongPasswordIsWrongWhoeverHoldsTheServer) {
  ASSERT_FALSE(server_.setPassword(password));
  reserve(alice_);
  EXPECT_EQ(reserveFails(bob_, "guess"), FailureCode::wrongPassword);
  EXPECT_EQ(reserveFails(alice_, "guess"), FailureCode::wrongPassword);
  EXPECT_EQ(prove(alice_), Outcome::proven);
}

TEST_F(DeskTest, TheHolderMayReserveAgain) {
  ASSERT_FALSE(server_.setPassword(password));
  reserve(alice_);
  const std::optional<HeldLease> before = alice_.records.heldOf(server_.uuid);
  Reserving again(server_, alice_, password);
  EXPECT_TRUE(again.run(server_));
  EXPECT_EQ(alice_.records.heldOf(server_.uuid), before) << "the lease goes on";
  EXPECT_EQ(again.dialogue.held(), before);
}

TEST_F(DeskTest, WhoGoesAwayWhileTheServerIsClearedGetsNothing) {
  ASSERT_FALSE(server_.setPassword(password));
  {
    Reserving reserving(server_, alice_, password);
    reserving.negotiation.goOn();
  }
  EXPECT_EQ(server_.admitted, server_.everybody);
  std::move_only_function<void()> late = std::exchange(server_.clearing, nullptr);
  reserve(bob_);
  late();  // of the clearing that nobody waits for any more
  EXPECT_EQ(server_.desk->holder()->endpoint.address, "192.0.2.7");
  EXPECT_EQ(prove(bob_), Outcome::proven);
}

TEST_F(DeskTest, ALateClearingDoesNotGrantWhatIsNotCleared) {
  ASSERT_FALSE(server_.setPassword(password));
  {
    Reserving reserving(server_, alice_, password);
    reserving.negotiation.goOn();
  }
  std::move_only_function<void()> late = std::exchange(server_.clearing, nullptr);
  Reserving second(server_, bob_, password);
  second.negotiation.goOn();
  late();
  EXPECT_FALSE(server_.desk->holder());
  EXPECT_EQ(server_.admitted, server_.nobody);
}

TEST_F(DeskTest, TheHolderShowsItselfAndNobodyElseCan) {
  ASSERT_FALSE(server_.setPassword(password));
  reserve(alice_);
  Proving proving(server_, alice_);
  EXPECT_EQ(proving.run(), Outcome::proven);
  EXPECT_EQ(proving.negotiation.lease, alice_.records.heldOf(server_.uuid)->lease.id);

  HeldLease forged = *alice_.records.heldOf(server_.uuid);
  forged.lease.key = Key();
  ASSERT_TRUE(bob_.records.expect(forged));
  bob_.records.confirm(forged.lease.id);
  Proving forging(server_, bob_);
  EXPECT_EQ(forging.run(), Outcome::refused);
  EXPECT_FALSE(forging.negotiation.lease);
}

TEST_F(DeskTest, AnOverheardProofIsNoUse) {
  ASSERT_FALSE(server_.setPassword(password));
  reserve(alice_);
  Proving overheard(server_, alice_, Purpose::release);
  // Everything up to the last question, which is kept back.
  overheard.negotiation.goOn();
  ASSERT_EQ(overheard.dialogue.outcome(), Outcome::proven);
  reserve(alice_);  // gave it back; takes it again
  const std::vector<Nbd::Extension::Question> recording = overheard.negotiation.said;
  Client replayer{.id = 1'000'000, .address = "192.0.2.66", .binding = {}};
  std::vector<Told> answers;
  for (const auto& question : recording) {
    if (question.kind == Nbd::Extension::Kind::hello) continue;
    server_.desk->ask(replayer, question.kind, question.body,
                      [&](Told told) { answers.push_back(std::move(told)); });
  }
  ASSERT_EQ(answers.size(), 2U);
  EXPECT_EQ(decodeProven(*answers[1].body)->status, Status::leaseLost) << "another lease by now";
  EXPECT_TRUE(server_.desk->holder());

  Proving holding(server_, alice_);
  ASSERT_EQ(holding.run(), Outcome::proven);
  replayer.id += 1;
  answers.clear();
  for (const auto& question : holding.negotiation.said) {
    if (question.kind == Nbd::Extension::Kind::hello) continue;
    server_.desk->ask(replayer, question.kind, question.body,
                      [&](Told told) { answers.push_back(std::move(told)); });
  }
  ASSERT_EQ(answers.size(), 2U);
  EXPECT_EQ(decodeProven(*answers[1].body)->status, Status::proofRefused) << "the same lease, another nonce";
  EXPECT_FALSE(answers[1].lease);
}

TEST_F(DeskTest, AnOverheardReservationIsNoUse) {
  ASSERT_FALSE(server_.setPassword(password));
  Reserving overheard(server_, alice_, password);
  ASSERT_TRUE(overheard.run(server_));
  ASSERT_EQ(prove(alice_, Purpose::release), Outcome::proven);
  const Client replayer{.id = 1'000'000, .address = "192.0.2.66", .binding = {}};
  std::optional<Status> last;
  for (const auto& question : overheard.negotiation.said) {
    if (question.kind == Nbd::Extension::Kind::hello) continue;
    server_.desk->ask(replayer, question.kind, question.body, [&](Told told) {
      last = told.body && question.kind == Kind::finishReserving
                 ? std::optional(decodeReserved(*told.body)->status)
                 : std::nullopt;
    });
  }
  EXPECT_NE(last, Status::granted);
  EXPECT_FALSE(server_.clearing);
  EXPECT_FALSE(server_.desk->holder());
}

TEST_F(DeskTest, ProofsAreBoundToTheChannel) {
  ASSERT_FALSE(server_.setPassword(password));
  reserve(alice_);
  const std::string channel(32, 'a');
  EXPECT_EQ(Proving(server_, alice_, Purpose::hold, channel, channel).run(), Outcome::proven);
  EXPECT_EQ(Proving(server_, alice_, Purpose::hold, channel, std::string(32, 'b')).run(), Outcome::refused);
  EXPECT_EQ(Proving(server_, alice_, Purpose::hold, channel, {}).run(), Outcome::refused);
  EXPECT_EQ(Proving(server_, alice_, Purpose::hold, {}, channel).run(), Outcome::refused);
}

TEST_F(DeskTest, TheHolderGivesTheServerBack) {
  ASSERT_FALSE(server_.setPassword(password));
  reserve(alice_);
  const std::string lease = server_.admitted;
  EXPECT_EQ(prove(alice_, Purpose::release), Outcome::proven);
  EXPECT_EQ(server_.admitted, server_.everybody);
  EXPECT_EQ(server_.ended, std::vector<std::string>{lease});
  EXPECT_FALSE(server_.desk->holder());
  EXPECT_EQ(prove(alice_), Outcome::lost);
  reserve(bob_);
}

TEST_F(DeskTest, AnotherPasswordLeavesTheLease) {
  ASSERT_FALSE(server_.setPassword(password));
  reserve(alice_);
  ASSERT_FALSE(server_.setPassword("another"));
  EXPECT_EQ(prove(alice_), Outcome::proven);
  EXPECT_EQ(reserveFails(bob_, password), FailureCode::wrongPassword);
  EXPECT_EQ(reserveFails(bob_, "another"), FailureCode::reservedByOther);
}

TEST_F(DeskTest, WithoutPasswordThereIsNoLease) {
  ASSERT_FALSE(server_.setPassword(password));
  reserve(alice_);
  ASSERT_FALSE(server_.setPassword(std::nullopt));
  EXPECT_EQ(server_.admitted, server_.everybody);
  EXPECT_EQ(server_.ended.size(), 1U);
  EXPECT_EQ(prove(alice_), Outcome::lost);
  EXPECT_EQ(reserveFails(bob_, password), FailureCode::reservationDisabled);
  server_.restart();
  EXPECT_EQ(reserveFails(bob_, password), FailureCode::reservationDisabled);
}

TEST_F(DeskTest, APasswordThatIsTakenAwayMeanwhileGrantsNothing) {
  ASSERT_FALSE(server_.setPassword(password));
  Reserving reserving(server_, alice_, password);
  reserving.negotiation.goOn();
  ASSERT_FALSE(server_.setPassword(std::nullopt));
  EXPECT_TRUE(reserving.negotiation.goOn());
  EXPECT_EQ(reserving.dialogue.result().error().code, FailureCode::reservationDisabled);
  EXPECT_FALSE(alice_.records.holdsAny());
  server_.letClear();
  EXPECT_FALSE(server_.desk->holder());
  EXPECT_EQ(server_.admitted, server_.everybody);
}

TEST_F(DeskTest, ALeaseThatCannotBeSavedIsNotGranted) {
  ASSERT_FALSE(server_.setPassword(password));
  std::filesystem::create_directory(server_.store->file().native() + ".new");
  EXPECT_EQ(reserveFails(alice_, password), FailureCode::remoteRefused);
  EXPECT_EQ(server_.admitted, server_.everybody);
  EXPECT_FALSE(alice_.records.holdsAny());
}

TEST_F(DeskTest, ALeaseOutlivesRestartsOfBothSides) {
  ASSERT_FALSE(server_.setPassword(password));
  reserve(alice_);
  const std::string admitted = server_.admitted;
  server_.restart();
  EXPECT_EQ(server_.admitted, admitted);
  EXPECT_EQ(server_.desk->holder()->endpoint.address, "192.0.2.7");
  Records reborn(alice_.store, *alice_.store.load());
  EXPECT_EQ(reborn.heldOf(server_.uuid), alice_.records.heldOf(server_.uuid));
  EXPECT_EQ(prove(alice_), Outcome::proven);
}

TEST_F(DeskTest, AGrantWhoseAnswerWasLostIsKnownToTheHolder) {
  ASSERT_FALSE(server_.setPassword(password));
  Reserving reserving(server_, alice_, password);
  reserving.negotiation.goOn();
  const std::optional<HeldLease> undecided = reserving.dialogue.undecided();
  ASSERT_TRUE(undecided);
  EXPECT_FALSE(alice_.records.holdsAny()) << "not known to be held";
  server_.letClear();  // granted; say that the answer got lost
  Records reborn(alice_.store, *alice_.store.load());
  EXPECT_EQ(reborn.heldOf(server_.uuid), undecided);
  EXPECT_EQ(toText(undecided->lease.id), server_.admitted);
}

TEST_F(DeskTest, PasswordsThatCannotBe) {
  EXPECT_EQ(server_.setPassword("")->code, FailureCode::invalidArgument);
  EXPECT_EQ(server_.setPassword("a\nb")->code, FailureCode::invalidArgument);
  EXPECT_EQ(server_.setPassword(std::string(1000, 'x'))->code, FailureCode::invalidArgument);
}

TEST_F(DeskTest, QuestionsOutOfPlaceAreRefused) {
  ASSERT_FALSE(server_.setPassword(password));
  const Client client{.id = 1'000'000, .address = "192.0.2.66", .binding = {}};
  const auto isRefused = [&](Nbd::Extension::Kind kind, const Body& body) {
    std::optional<Told> told;
    server_.desk->ask(client, kind, body, [&](Told answer) { told = std::move(answer); });
    return told && !told->body;
  };
  EXPECT_TRUE(isRefused(Kind::finishReserving, encodeScramMessage("c=biws,r=x,p=y")));
  EXPECT_TRUE(isRefused(Kind::finishProof, encode(ProofFinish{})));
  EXPECT_TRUE(isRefused(Kind::beginReserving, {}));
  EXPECT_TRUE(isRefused(Kind::beginReserving, encodeScramMessage("nonsense")));
  EXPECT_TRUE(isRefused(Kind::beginProof, Body(3)));
  EXPECT_TRUE(isRefused(static_cast<Nbd::Extension::Kind>(0x1f), {}));
}

TEST(DeskExpiry, AHolderThatIsNotHeardOfLosesTheServer) {
  FakeServer server({.atOnce = 1000, .pace = 1s, .longest = 1s, .networks = 10}, 1s);
  FakeHost alice;
  ASSERT_FALSE(server.setPassword(password));
  Reserving reserving(server, alice, password);
  ASSERT_TRUE(reserving.run(server));
  server.runUntil([&] { return server.admitted == server.everybody; });
  EXPECT_FALSE(server.desk->holder());
  EXPECT_EQ(server.ended.size(), 1U);
  EXPECT_FALSE(server.records->read().granted);
  EXPECT_EQ(Proving(server, alice).run(), Outcome::lost);
}

TEST(DeskAttempts, OneNetworksGuessesAreItsOwnAffair) {
  FakeServer server({.atOnce = 3, .pace = 3600s, .longest = 0s, .networks = 10});
  FakeHost guesser;
  FakeHost alice;
  ASSERT_FALSE(server.setPassword(password));
  for (int guess = 0; guess < 3; ++guess) {
    Reserving reserving(server, guesser, "guess", "192.0.2.66");
    EXPECT_EQ(reserving.run(server).error().code, FailureCode::wrongPassword);
  }
  Reserving further(server, guesser, password, "192.0.2.66");
  EXPECT_EQ(further.run(server).error().code, FailureCode::tooManyAttempts);
  Reserving elsewhere(server, alice, password, "192.0.2.7");
  EXPECT_TRUE(elsewhere.run(server));
  // Nor does the holder pay for guesses, not even for those that seem to be its own.
  for (int guess = 0; guess < 10; ++guess) {
    Reserving reserving(server, guesser, "guess", "192.0.2.7");
    static_cast<void>(reserving.run(server));
  }
  EXPECT_EQ(Proving(server, alice).run(), Outcome::proven);
}

TEST(DeskAttempts, BeyondAFewAnAttemptWaitsForItsTurn) {
  FakeServer server({.atOnce = 1, .pace = 1s, .longest = 10s, .networks = 10});
  FakeHost alice;
  ASSERT_FALSE(server.setPassword(password));
  Reserving wrong(server, alice, "guess");
  EXPECT_EQ(wrong.run(server).error().code, FailureCode::wrongPassword);
  Reserving right(server, alice, password);
  EXPECT_FALSE(right.negotiation.goOn()) << "has to wait";
  const std::size_t asked = right.negotiation.said.size();
  server.runUntil([&] {
    right.negotiation.goOn();
    return right.negotiation.said.size() > asked;
  });
  EXPECT_TRUE(right.run(server));
}

}  // namespace
}  // namespace Nbdd::Reservations
