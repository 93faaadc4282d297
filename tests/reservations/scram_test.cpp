#include "nbdd/reservations/scram.h"

#include <gtest/gtest.h>

#include <string>

#include "control/base64.h"
#include "nbdd/reservations/digest.h"
#include "nbdd/reservations/limits.h"

namespace Nbdd::Reservations {
namespace {

constexpr std::uint32_t few = Limits::fewestIterations;  // quick

Verifier verifierOf(const std::string& password) { return makeVerifier(*preparePassword(password), few); }

/// One whole exchange, and what both ends think of it.
struct Outcome {
  ScramServer::Verdict verdict = ScramServer::Verdict::malformed;
  bool clientIsSure = false;
  Key serversKey;
  Key clientsKey;
  std::string clientFinal;
};

Outcome exchange(const Verifier& verifier, const std::string& password, const ChannelBinding& serverSees = {},
                 const ChannelBinding& clientSees = {}) {
  Outcome outcome;
  ScramServer server(verifier, serverSees);
  ScramClient client(clientSees);
  const std::optional<std::string> serverFirst = server.begin(client.begin());
  if (!serverFirst) return outcome;
  const std::optional<std::string> clientFinal = client.answer(*serverFirst, *preparePassword(password));
  if (!clientFinal) return outcome;
  outcome.clientFinal = *clientFinal;
  const ScramServer::Outcome result = server.finish(*clientFinal);
  outcome.verdict = result.verdict;
  outcome.serversKey = result.leaseKey;
  outcome.clientsKey = client.leaseKey();
  outcome.clientIsSure = client.verify(result.serverFinal);
  return outcome;
}

TEST(Scram, TheRightPasswordGivesBothTheSameKey) {
  const Outcome outcome = exchange(verifierOf("open sesame"), "open sesame");
  EXPECT_EQ(outcome.verdict, ScramServer::Verdict::accepted);
  EXPECT_TRUE(outcome.clientIsSure);
  EXPECT_EQ(outcome.serversKey, outcome.clientsKey);
  EXPECT_NE(outcome.serversKey, Key());
}

TEST(Scram, AWrongPasswordIsToldAsSuch) {
  const Outcome outcome = exchange(verifierOf("open sesame"), "open sesam");
  EXPECT_EQ(outcome.verdict, ScramServer::Verdict::wrongPassword);
  EXPECT_FALSE(outcome.clientIsSure);
  EXPECT_EQ(outcome.serversKey, Key());
}

TEST(Scram, EveryExchangeHasAKeyOfItsOwn) {
  const Verifier verifier = verifierOf("open sesame");
  EXPECT_NE(exchange(verifier, "open sesame").serversKey, exchange(verifier, "open sesame").serversKey);
}

TEST(Scram, AnOverheardExchangeIsNoUseLater) {
  const Verifier verifier = verifierOf("open sesame");
  ScramServer overheard(verifier, {});
  ScramClient client(std::nullopt);
  const std::string clientFirst = client.begin();
  const std::optional<std::string> clientFinal = client.answer(*overheard.begin(clientFirst), "open sesame");
  ASSERT_TRUE(clientFinal);
  ASSERT_EQ(overheard.finish(*clientFinal).verdict, ScramServer::Verdict::accepted);

  ScramServer later(verifier, {});
  ASSERT_TRUE(later.begin(clientFirst));
  EXPECT_NE(later.finish(*clientFinal).verdict, ScramServer::Verdict::accepted);
}

TEST(Scram, PasswordsThatLookTheSameAreTheSame) {
  const std::string composed = "caf\u00e9";
  const std::string decomposed = "cafe\u0301";
  EXPECT_EQ(preparePassword(composed), preparePassword(decomposed));
  EXPECT_EQ(exchange(verifierOf(composed), decomposed).verdict, ScramServer::Verdict::accepted);
}

TEST(Scram, WhatIsNoPassword) {
  EXPECT_FALSE(preparePassword(""));
  EXPECT_FALSE(preparePassword(std::string(Limits::passwordLength + 1, 'x')));
  EXPECT_FALSE(preparePassword("a\nb"));
  EXPECT_FALSE(preparePassword(std::string("a\0b", 3)));
  EXPECT_FALSE(preparePassword("\xff\xfe"));
  EXPECT_TRUE(preparePassword(std::string(Limits::passwordLength, 'x')));
}

TEST(Scram, OneChannelOnBothEndsIsAccepted) {
  const std::string channel(32, 'c');
  const Outcome outcome = exchange(verifierOf("open sesame"), "open sesame", channel, channel);
  EXPECT_EQ(outcome.verdict, ScramServer::Verdict::accepted);
  EXPECT_TRUE(outcome.clientIsSure);
  EXPECT_EQ(outcome.serversKey, outcome.clientsKey);
}

TEST(Scram, SomebodyBetweenTwoChannelsIsNot) {
  const Verifier verifier = verifierOf("open sesame");
  EXPECT_NE(exchange(verifier, "open sesame", std::string(32, 'a'), std::string(32, 'b')).verdict,
            ScramServer::Verdict::accepted);
  EXPECT_NE(exchange(verifier, "open sesame", std::string(32, 'a'), {}).verdict,
            ScramServer::Verdict::accepted);
  EXPECT_NE(exchange(verifier, "open sesame", {}, std::string(32, 'b')).verdict,
            ScramServer::Verdict::accepted);
}

TEST(Scram, AClientThatNamesAChannelWhereThereIsNoneGetsNothing) {
  ScramServer server(verifierOf("open sesame"), {});
  if (!server.begin("p=tls-unique,,n=reservation,r=abcdefgh")) return;
  const std::string proof = Control::toBase64(std::string(32, 'x'));
  EXPECT_NE(server.finish("c=cD10bHMtdW5pcXVlLCw=,r=abcdefgh,p=" + proof).verdict,
            ScramServer::Verdict::accepted);
}

TEST(Scram, AServerThatDoesNotKnowThePasswordIsFoundOut) {
  Verifier impostor = verifierOf("guessed");
  ScramServer server(impostor, {});
  ScramClient client(std::nullopt);
  const std::optional<std::string> serverFirst = server.begin(client.begin());
  ASSERT_TRUE(client.answer(*serverFirst, "open sesame"));
  EXPECT_FALSE(client.verify("v=" + Control::toBase64(std::string(32, 'x'))));
}

TEST(Scram, MalformedMessagesAreRefused) {
  const Verifier verifier = verifierOf("open sesame");
  for (const std::string& message :
       {std::string(), std::string("n,,"), std::string("n,,n=reservation"), std::string(2000, 'x'),
        std::string("n,,n=a,r=b\0c", 12), std::string("y")}) {
    EXPECT_FALSE(ScramServer(verifier, {}).begin(message)) << message;
  }
  for (const std::string& message : {std::string(), std::string("c=biws"), std::string("c=biws,r=x,p="),
                                     std::string("c=biws,r=x,p=AAAA"), std::string(2000, 'x')}) {
    ScramServer server(verifier, {});
    ASSERT_TRUE(server.begin("n,,n=reservation,r=abcdefgh"));
    EXPECT_NE(server.finish(message).verdict, ScramServer::Verdict::accepted) << message;
  }
}

TEST(Scram, TheServersFirstMessageIsHeldToItsBounds) {
  EXPECT_EQ(parseServerFirst("r=abc,s=MTIz,i=4096"), (ServerFirst{.salt = "123", .iterations = 4096}));
  EXPECT_TRUE(parseServerFirst("r=abc,s=MTIz,i=1000000"));
  for (const char* text :
       {"", "r=abc", "r=abc,s=MTIz", "r=abc,s=MTIz,i=", "r=abc,s=MTIz,i=4095", "r=abc,s=MTIz,i=1000001",
        "r=abc,s=MTIz,i=99999999999999999999", "r=abc,s=MTIz,i=-4096", "r=abc,s=MTIz,i=4096,x=y",
        "r=abc,s=,i=4096", "r=,s=MTIz,i=4096", "r=abc,s=!!!!,i=4096", "m=x,r=abc,s=MTIz,i=4096", "r",
        "r=", "r=abc,s=MTIz,i=4096x"}) {
    EXPECT_FALSE(parseServerFirst(text)) << text;
  }
}

TEST(Scram, TheVerifierFollowsItsDefinition) {
  // The example of RFC 7677, section 3.
  const std::optional<std::string> salt = Control::fromBase64("W22ZaJ0SNY7soEsUEjb6gQ==");
  const Key salted = stretch("pencil", std::as_bytes(std::span(*salt)), 4096);
  const Key expected = [] {
    Key key;
    constexpr std::string_view digits = "c4a49510323ab4f952cac1fa99441939e78ea74d6be81ddf7096e87513dc615d";
    for (std::size_t index = 0; index < Key::size; ++index) {
      key.octets()[index] =
          static_cast<std::byte>(std::stoul(std::string(digits.substr(2 * index, 2)), nullptr, 16));
    }
    return key;
  }();
  EXPECT_EQ(salted, expected);
}

}  // namespace
}  // namespace Nbdd::Reservations
