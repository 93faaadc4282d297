#include "nbd/client_handshake.h"

#include <gtest/gtest.h>

#include <numeric>
#include <string>
#include <vector>

#include "nbd/limits.h"
#include "tests/support/wire.h"

namespace {

using namespace std::string_literals;
using Nbd::ClientHandshake;
using Nbd::InfoType;
using Nbd::Option;
using Nbd::ReplyType;
using Goal = ClientHandshake::Goal;
using State = ClientHandshake::State;
using Wire::Buffer;
using Wire::counted;
using Wire::infoData;
using Wire::join;
using Wire::number;
using Wire::option;
using Wire::reply;
using Wire::text;

Buffer greeting(std::uint16_t flags = 3) { return join({text("NBDMAGICIHAVEOPT"), number(flags)}); }

Buffer exportInfo(std::uint64_t size, std::uint16_t flags) {
  return join({number(InfoType::exportInfo), number(size), number(flags)});
}

Buffer blockSizes(std::uint32_t minimum, std::uint32_t preferred, std::uint32_t maximum) {
  return join({number(InfoType::blockSize), number(minimum), number(preferred), number(maximum)});
}

const Buffer acknowledgeStructured = reply(Option::structuredReply, ReplyType::ack);
const Buffer acknowledgeContext = join({reply(Option::setMetaContext, ReplyType::metaContext,
                                              join({number(std::uint32_t{42}), text("base:allocation")})),
                                        reply(Option::setMetaContext, ReplyType::ack)});
const Buffer acknowledgeGo =
    join({reply(Option::go, ReplyType::info, exportInfo(1'000'000, 7)), reply(Option::go, ReplyType::ack)});
const Buffer wantedOfDisk = infoData("disk", {InfoType::name, InfoType::description, InfoType::blockSize});

/// A client in front of a server that says `words`, whatever it is asked.
struct Conversation {
  Conversation(ClientHandshake::Wish wish, const Buffer& words) : handshake(std::move(wish)) {
    outcome = Wire::converse(handshake, words);
  }

  ClientHandshake handshake;
  Wire::Outcome<ClientHandshake> outcome;
};

ClientHandshake::Wish plain() {
  return {.exportName = "disk", .structuredReplies = false, .allocationContext = false};
}

TEST(ClientHandshake, AsksForEverythingInOrder) {
  const Conversation conversation(
      {.exportName = "disk"}, join({greeting(), acknowledgeStructured, acknowledgeContext, acknowledgeGo}));
  EXPECT_EQ(conversation.outcome.state, State::transmission);
  EXPECT_EQ(conversation.outcome.output,
            join({number(std::uint32_t{3}), option(Option::structuredReply),
                  option(Option::setMetaContext, Wire::contextData("disk", {"base:allocation"})),
                  option(Option::go, wantedOfDisk)}));
  const ClientHandshake::Agreement& agreement = conversation.handshake.agreement();
  EXPECT_EQ(agreement.remote.size, 1'000'000U);
  EXPECT_EQ(agreement.remote.transmissionFlags, 7);
  EXPECT_EQ(agreement.headers, Nbd::HeaderStyle::structured);
  EXPECT_EQ(agreement.allocationContext, 42U);
  EXPECT_TRUE(agreement.limits().blockStatus);
}

TEST(ClientHandshake, DoesWithoutWhatTheServerLacks) {
  const Conversation conversation(
      {.exportName = "disk"},
      join({greeting(1), reply(Option::structuredReply, ReplyType::unsupported), acknowledgeGo}));
  EXPECT_EQ(conversation.outcome.state, State::transmission);
  EXPECT_EQ(conversation.handshake.agreement().headers, Nbd::HeaderStyle::simple);
  EXPECT_EQ(conversation.handshake.agreement().allocationContext, std::nullopt);
}

const Buffer acknowledgeExtended = reply(Option::extendedHeaders, ReplyType::ack);

TEST(ClientHandshake, ExtendedHeadersTakeThePlaceOfStructuredReplies) {
  const Conversation conversation({.exportName = "disk", .extendedHeaders = true},
                                  join({greeting(), acknowledgeExtended, acknowledgeContext, acknowledgeGo}));
  EXPECT_EQ(conversation.outcome.state, State::transmission);
  EXPECT_EQ(conversation.outcome.output,
            join({number(std::uint32_t{3}), option(Option::extendedHeaders),
                  option(Option::setMetaContext, Wire::contextData("disk", {"base:allocation"})),
                  option(Option::go, wantedOfDisk)}));
  EXPECT_EQ(conversation.handshake.agreement().headers, Nbd::HeaderStyle::extended);
  EXPECT_EQ(conversation.handshake.agreement().limits().headers, Nbd::HeaderStyle::extended);
  EXPECT_EQ(conversation.handshake.agreement().allocationContext, 42U);
}

TEST(ClientHandshake, WithoutExtendedHeadersThereAreStructuredReplies) {
  for (const ReplyType refusal : {ReplyType::unsupported, ReplyType::policy, ReplyType::invalid}) {
    const Conversation conversation({.exportName = "disk", .extendedHeaders = true},
                                    join({greeting(), reply(Option::extendedHeaders, refusal),
                                          acknowledgeStructured, acknowledgeContext, acknowledgeGo}));
    EXPECT_EQ(conversation.outcome.state, State::transmission);
    EXPECT_EQ(conversation.handshake.agreement().headers, Nbd::HeaderStyle::structured);
    EXPECT_EQ(conversation.handshake.agreement().allocationContext, 42U);
  }
}

TEST(ClientHandshake, WithoutEitherItGoesOnPlainly) {
  const Conversation conversation(
      {.exportName = "disk", .extendedHeaders = true, .structuredReplies = false},
      join({greeting(), reply(Option::extendedHeaders, ReplyType::unsupported), acknowledgeGo}));
  EXPECT_EQ(conversation.outcome.state, State::transmission);
  EXPECT_EQ(conversation.handshake.agreement().headers, Nbd::HeaderStyle::simple);
}

// EXPORT_NAME would be a breach of the protocol by then.
TEST(ClientHandshake, DoesNotFallBackToExportNameBehindExtendedHeaders) {
  const Conversation conversation(
      {.exportName = "disk", .extendedHeaders = true, .allocationContext = false},
      join({greeting(), acknowledgeExtended, reply(Option::go, ReplyType::unsupported)}));
  EXPECT_EQ(conversation.outcome.state, State::failed);
  EXPECT_TRUE(conversation.handshake.failure().isRefusal);
}

TEST(ClientHandshake, ARefusedContextIsNotSelected) {
  const Conversation conversation({.exportName = "disk"},
                                  join({greeting(), acknowledgeStructured,
                                        reply(Option::setMetaContext, ReplyType::metaContext,
                                              join({number(std::uint32_t{42}), text("base:allocation")})),
                                        reply(Option::setMetaContext, ReplyType::tooBig), acknowledgeGo}));
  EXPECT_EQ(conversation.outcome.state, State::transmission);
  EXPECT_EQ(conversation.handshake.agreement().headers, Nbd::HeaderStyle::structured);
  EXPECT_EQ(conversation.handshake.agreement().allocationContext, std::nullopt);
}

TEST(ClientHandshake, AnotherContextIsNotOurs) {
  const Conversation conversation({.exportName = "disk"},
                                  join({greeting(), acknowledgeStructured,
                                        reply(Option::setMetaContext, ReplyType::metaContext,
                                              join({number(std::uint32_t{42}), text("x-a:b")})),
                                        reply(Option::setMetaContext, ReplyType::ack), acknowledgeGo}));
  EXPECT_EQ(conversation.handshake.agreement().allocationContext, std::nullopt);
}

TEST(ClientHandshake, TakesWhatTheServerTells) {
  const Conversation conversation(
      plain(),
      join({greeting(), reply(Option::go, ReplyType::info, blockSizes(512, 4096, 0xffff'ffff)),
            reply(Option::go, ReplyType::info, join({number(InfoType::name), text("canonical")})),
            reply(Option::go, ReplyType::info, join({number(InfoType::description), text("a disk")})),
            reply(Option::go, ReplyType::info, join({number(InfoType{99}), text("unknown")})),
            reply(Option::go, ReplyType{77}, text("of a later protocol")), acknowledgeGo}));
  ASSERT_EQ(conversation.outcome.state, State::transmission);
  const Nbd::RemoteExport& remote = conversation.handshake.agreement().remote;
  EXPECT_EQ(remote.name, "canonical");
  EXPECT_EQ(remote.description, "a disk");
  EXPECT_EQ(remote.minimumBlock, 512U);
  EXPECT_EQ(remote.preferredBlock, 4096U);
  EXPECT_EQ(remote.maximumPayload, Nbd::portablePayload) << "no more than we would hold";
}

TEST(ClientHandshake, FallsBackToExportName) {
  const Buffer withoutGo = join({greeting(), reply(Option::go, ReplyType::unsupported)});
  const Conversation conversation(
      plain(), join({withoutGo, number(std::uint64_t{512}), number(std::uint16_t{3}), Buffer(50)}));
  EXPECT_EQ(conversation.outcome.state, State::transmission);
  EXPECT_EQ(conversation.outcome.consumed, withoutGo.size() + 10) << "the rest is not the handshake's";
  EXPECT_EQ(conversation.handshake.agreement().remote.size, 512U);
  EXPECT_EQ(conversation.outcome.output, join({number(std::uint32_t{3}), option(Option::go, wantedOfDisk),
                                               option(Option::exportName, text("disk"))}));
}

TEST(ClientHandshake, ReadsThePaddingWhereItWasNotAgreedAway) {
  const Buffer words = join({greeting(1), reply(Option::go, ReplyType::unsupported),
                             number(std::uint64_t{512}), number(std::uint16_t{3}), Buffer(124)});
  const Conversation conversation(plain(), words);
  EXPECT_EQ(conversation.outcome.state, State::transmission);
  EXPECT_EQ(conversation.outcome.consumed, words.size());
}

TEST(ClientHandshake, WithoutFixedNewstyleThereIsOnlyExportName) {
  const Conversation conversation({.exportName = "disk"}, join({greeting(0), number(std::uint64_t{512}),
                                                                number(std::uint16_t{3}), Buffer(124)}));
  EXPECT_EQ(conversation.outcome.state, State::transmission);
  EXPECT_EQ(conversation.outcome.output,
            join({number(std::uint32_t{0}), option(Option::exportName, text("disk"))}));
}

TEST(ClientHandshake, LeavesPolitelyWhenTheExportIsRefused) {
  const Conversation conversation(
      plain(), join({greeting(), reply(Option::go, ReplyType::unknown, text("no such export"))}));
  EXPECT_EQ(conversation.outcome.state, State::failed);
  const ClientHandshake::Failure& failure = conversation.handshake.failure();
  EXPECT_TRUE(failure.isRefusal);
  EXPECT_EQ(failure.reply, ReplyType::unknown);
  EXPECT_EQ(failure.message, "the server refused: no such export");
  EXPECT_EQ(conversation.outcome.output,
            join({number(std::uint32_t{3}), option(Option::go, wantedOfDisk), option(Option::abort)}));
}

TEST(ClientHandshake, AReasonThatIsNoTextIsLeftOut) {
  const Conversation conversation(plain(),
                                  join({greeting(), reply(Option::go, ReplyType::policy, text("\xff\0"s))}));
  EXPECT_EQ(conversation.handshake.failure().message, "the server refused");
}

TEST(ClientListing, HoldsNamesAndDescriptions) {
  const Conversation conversation(
      {.goal = Goal::listing},
      join({greeting(), reply(Option::list, ReplyType::server, join({counted("a"), text("first")})),
            reply(Option::list, ReplyType::server, counted("")), reply(Option::list, ReplyType::ack)}));
  EXPECT_EQ(conversation.outcome.state, State::finished);
  EXPECT_EQ(conversation.outcome.output,
            join({number(std::uint32_t{3}), option(Option::list), option(Option::abort)}));
  const auto& exports = conversation.handshake.exports();
  ASSERT_EQ(exports.size(), 2U);
  EXPECT_EQ(exports[0].name, "a");
  EXPECT_EQ(exports[0].description, "first");
  EXPECT_EQ(exports[0].size, std::nullopt);
  EXPECT_EQ(exports[1].name, "");
}

TEST(ClientListing, DetailsAreAskedForBehindTheFirstInOneGo) {
  const Conversation conversation(
      {.goal = Goal::details},
      join({greeting(), reply(Option::list, ReplyType::server, counted("a")),
            reply(Option::list, ReplyType::server, counted("gone")),
            reply(Option::list, ReplyType::server, counted("c")), reply(Option::list, ReplyType::ack),
            reply(Option::info, ReplyType::info, exportInfo(512, 1)), reply(Option::info, ReplyType::ack),
            reply(Option::info, ReplyType::unknown),
            reply(Option::info, ReplyType::info, exportInfo(1024, 3)), reply(Option::info, ReplyType::ack)}));
  EXPECT_EQ(conversation.outcome.state, State::finished);
  const auto& exports = conversation.handshake.exports();
  ASSERT_EQ(exports.size(), 3U);
  EXPECT_EQ(exports[0].size, 512U);
  EXPECT_EQ(exports[1].size, std::nullopt);
  EXPECT_EQ(exports[2].size, 1024U);
  EXPECT_EQ(exports[2].transmissionFlags, 3);
}

void append(Buffer& words, const Buffer& more) { words.insert(words.end(), more.begin(), more.end()); }

/// How many questions a server hears at once, group by group, that answers all of them before it listens
/// again.
std::vector<std::size_t> questionsAtOnce(std::size_t exports, const std::string& name) {
  Buffer listing = greeting();
  Buffer answers;
  for (std::size_t index = 0; index < exports; ++index) {
    append(listing, reply(Option::list, ReplyType::server, counted(name)));
    append(answers, reply(Option::info, ReplyType::info, exportInfo(512, 1)));
    append(answers, reply(Option::info, ReplyType::ack));
  }
  append(listing, reply(Option::list, ReplyType::ack));
  const std::size_t answerSize = answers.size() / exports;
  const std::size_t questionSize =
      option(Option::info, infoData(name, {InfoType::name, InfoType::description, InfoType::blockSize}))
          .size();
  ClientHandshake handshake({.goal = Goal::details});
  Buffer output;
  auto progress = handshake.advance(listing, output);
  output.erase(output.begin(), output.begin() + 4 + std::ssize(option(Option::list)));
  std::vector<std::size_t> groups;
  while (progress.state == State::negotiating && !output.empty()) {
    EXPECT_EQ(output.size() % questionSize, 0U);
    groups.push_back(output.size() / questionSize);
    output.clear();
    progress = handshake.advance(Nbd::Bytes(answers).first(groups.back() * answerSize), output);
  }
  EXPECT_EQ(progress.state, State::finished);
  EXPECT_EQ(handshake.exports().back().size, 512U);
  return groups;
}

TEST(ClientListing, FiveThousandExportsTakeFewRoundTrips) {
  const std::vector<std::size_t> groups = questionsAtOnce(5000, "disk-0001");
  EXPECT_EQ(groups.front(), 1U) << "whether the server knows the question is not known before";
  EXPECT_EQ(std::accumulate(groups.begin(), groups.end(), std::size_t{0}), 5000U);
  EXPECT_LE(groups.size(), 20U);
}

TEST(ClientListing, QuestionsWithLongNamesAreFewAtOnce) {
  for (const std::size_t group : questionsAtOnce(20, std::string(Nbd::maxStringLength, 'x'))) {
    EXPECT_LE(group, 3U);
  }
}

TEST(ClientListing, AServerWithoutTheQuestionIsAskedOnce) {
  const Conversation conversation(
      {.goal = Goal::details},
      join({greeting(), reply(Option::list, ReplyType::server, counted("a")),
            reply(Option::list, ReplyType::server, counted("b")), reply(Option::list, ReplyType::ack),
            reply(Option::info, ReplyType::unsupported)}));
  EXPECT_EQ(conversation.outcome.state, State::finished);
  EXPECT_EQ(conversation.handshake.exports().size(), 2U);
}

TEST(ClientListing, MayBeRefused) {
  const Conversation conversation({.goal = Goal::listing},
                                  join({greeting(), reply(Option::list, ReplyType::policy)}));
  EXPECT_EQ(conversation.outcome.state, State::failed);
  EXPECT_EQ(conversation.handshake.failure().reply, ReplyType::policy);
}

TEST(ClientListing, NeedsFixedNewstyle) {
  EXPECT_EQ(Conversation({.goal = Goal::listing}, greeting(0)).outcome.state, State::failed);
}

// --- Servers that break the protocol
// -----------------------------------------------------------------------------

struct HostileCase {
  const char* name;
  Buffer words;
  Goal goal = Goal::transmission;
};

Buffer announce(Option code, ReplyType type, std::uint32_t length) {
  return join({number(Nbd::optionReplyMagic), number(code), number(type), number(length)});
}

const Buffer goInfo = announce(Option::go, ReplyType::info, 0);

const HostileCase hostileCases[] = {
    {"NoServerAtAll", text("SSH-2.0-whatever-else")},
    {"Oldstyle", join({text("NBDMAGIC"), number(Nbd::oldstyleMagic), Buffer(2)})},
    {"UnknownSecondMagic", join({text("NBDMAGICnonsense"), Buffer(2)})},
    {"WrongReplyMagic", join({greeting(), Buffer(20)})},
    {"ReplyToAnotherOption", join({greeting(), reply(Option::info, ReplyType::info, exportInfo(512, 1)),
                                   reply(Option::info, ReplyType::ack)})},
    {"ReplyTooLong",
     join({greeting(), announce(Option::go, ReplyType::info, Nbd::maxOptionReplyLength + 1)})},
    {"ReplyOfFourGigabytes", join({greeting(), announce(Option::go, ReplyType::info, 0xffff'ffff)})},
    {"AcknowledgementWithData", join({greeting(), reply(Option::go, ReplyType::ack, text("x"))})},
    {"GoWithoutASize", join({greeting(), reply(Option::go, ReplyType::ack)})},
    {"InfoWithoutAType", join({greeting(), reply(Option::go, ReplyType::info, Buffer(1))})},
    {"ExportInfoTooShort", join({greeting(), reply(Option::go, ReplyType::info, Buffer(11))})},
    {"ExportInfoTooLong", join({greeting(), reply(Option::go, ReplyType::info, Buffer(13))})},
    {"NameWithNul",
     join({greeting(), reply(Option::go, ReplyType::info, join({number(InfoType::name), Buffer(1)}))})},
    {"DescriptionInBadUtf8", join({greeting(), reply(Option::go, ReplyType::info,
                                                     join({number(InfoType::description), text("\xff")}))})},
    {"NameTooLong", join({greeting(), reply(Option::go, ReplyType::info,
                                            join({number(InfoType::name), text(std::string(4097, 'n'))}))})},
    {"BlockSizesTooShort",
     join({greeting(), reply(Option::go, ReplyType::info, join({number(InfoType::blockSize), Buffer(11)}))})},
    {"MinimumBlockZero", join({greeting(), reply(Option::go, ReplyType::info, blockSizes(0, 4096, 65'536))})},
    {"MinimumBlockNoPowerOfTwo",
     join({greeting(), reply(Option::go, ReplyType::info, blockSizes(3, 4096, 65'536))})},
    {"MinimumBlockTooLarge",
     join({greeting(), reply(Option::go, ReplyType::info, blockSizes(131'072, 131'072, 1 << 20))})},
    {"PreferredBlockBelowMinimum",
     join({greeting(), reply(Option::go, ReplyType::info, blockSizes(4096, 512, 65'536))})},
    {"MaximumBelowPreferred",
     join({greeting(), reply(Option::go, ReplyType::info, blockSizes(1, 4096, 512))})},
    {"ListedWithoutAName", join({greeting(), reply(Option::list, ReplyType::server, Buffer(3))}),
     Goal::listing},
    {"ListedNameBeyondTheReply",
     join({greeting(), reply(Option::list, ReplyType::server, join({number(std::uint32_t{2}), text("a")}))}),
     Goal::listing},
    {"ListedNameWithNul", join({greeting(), reply(Option::list, ReplyType::server, counted("\0"s))}),
     Goal::listing},
    {"ListedDescriptionInBadUtf8",
     join({greeting(), reply(Option::list, ReplyType::server, join({counted("a"), text("\xff")}))}),
     Goal::listing},
};

class HostileServer : public testing::TestWithParam<HostileCase> {};

TEST_P(HostileServer, IsLeft) {
  ClientHandshake::Wish wish = plain();
  wish.goal = GetParam().goal;
  const Conversation conversation(wish, GetParam().words);
  EXPECT_EQ(conversation.outcome.state, State::failed);
  EXPECT_FALSE(conversation.handshake.failure().isRefusal);
  EXPECT_FALSE(conversation.handshake.failure().message.empty());
}

INSTANTIATE_TEST_SUITE_P(Table, HostileServer, testing::ValuesIn(hostileCases),
                         [](const auto& row) { return row.param.name; });

TEST(HostileServer, OldstyleIsCalledByItsName) {
  const Conversation conversation(plain(), join({text("NBDMAGIC"), number(Nbd::oldstyleMagic), Buffer(2)}));
  EXPECT_NE(conversation.handshake.failure().message.find("oldstyle"), std::string::npos);
}

TEST(HostileServer, ContextWithoutAnId) {
  const Conversation conversation({.exportName = "disk"},
                                  join({greeting(), acknowledgeStructured,
                                        reply(Option::setMetaContext, ReplyType::metaContext, Buffer(3))}));
  EXPECT_EQ(conversation.outcome.state, State::failed);
}

TEST(HostileServer, EndlessRepliesEnd) {
  Buffer words = greeting();
  const Buffer one = reply(Option::go, ReplyType{77});
  for (std::uint32_t index = 0; index <= Nbd::maxRepliesPerOption; ++index) {
    words.insert(words.end(), one.begin(), one.end());
  }
  EXPECT_EQ(Conversation(plain(), words).outcome.state, State::failed);
}

TEST(HostileServer, ListingsAreBounded) {
  Buffer words = greeting();
  const Buffer one =
      reply(Option::list, ReplyType::server, join({counted(std::string(4000, 'n')), text("d")}));
  for (std::uint64_t total = 0; total <= Nbd::maxServerHandshakeBytes; total += one.size()) {
    words.insert(words.end(), one.begin(), one.end());
  }
  EXPECT_EQ(Conversation({.goal = Goal::listing}, words).outcome.state, State::failed);
}

// --- TLS

ClientHandshake::Wish secure(Nbd::TlsMode mode) {
  ClientHandshake::Wish wish = plain();
  wish.tls = mode;
  return wish;
}

const Buffer consent = reply(Option::startTls, ReplyType::ack);

TEST(ClientHandshakeTls, ComesBeforeEverythingElse) {
  for (const Nbd::TlsMode mode : {Nbd::TlsMode::allowed, Nbd::TlsMode::required}) {
    Conversation conversation(secure(mode), join({greeting(), consent}));
    ASSERT_EQ(conversation.outcome.state, State::startTls);
    EXPECT_EQ(conversation.outcome.output, join({Wire::clientFlags(), option(Option::startTls)}));
    Buffer output;
    conversation.handshake.secured(output);
    EXPECT_EQ(output, option(Option::go, wantedOfDisk));
    EXPECT_TRUE(conversation.handshake.isSecured());
    EXPECT_EQ(Wire::converse(conversation.handshake, acknowledgeGo).state, State::transmission);
  }
}

TEST(ClientHandshakeTls, RequiredEndsWithoutIt) {
  for (const ReplyType type : {ReplyType::unsupported, ReplyType::policy, ReplyType::invalid}) {
    Conversation conversation(secure(Nbd::TlsMode::required),
                              join({greeting(), reply(Option::startTls, type), acknowledgeGo}));
    EXPECT_EQ(conversation.outcome.state, State::failed);
    EXPECT_TRUE(conversation.handshake.failure().noTls);
  }
  Conversation oldServer(secure(Nbd::TlsMode::required), greeting(0));
  EXPECT_EQ(oldServer.outcome.state, State::failed);
  EXPECT_TRUE(oldServer.handshake.failure().noTls);
  EXPECT_TRUE(oldServer.outcome.output == Wire::clientFlags(0));
}

TEST(ClientHandshakeTls, AllowedGoesOnWithout) {
  Conversation conversation(
      secure(Nbd::TlsMode::allowed),
      join({greeting(), reply(Option::startTls, ReplyType::unsupported), acknowledgeGo}));
  EXPECT_EQ(conversation.outcome.state, State::transmission);
  EXPECT_FALSE(conversation.handshake.isSecured());
}

TEST(ClientHandshakeTls, AServerThatSpeaksBehindItsConsentIsRefused) {
  for (const Nbd::TlsMode mode : {Nbd::TlsMode::allowed, Nbd::TlsMode::required}) {
    Conversation conversation(secure(mode), join({greeting(), consent, acknowledgeGo}));
    EXPECT_EQ(conversation.outcome.state, State::failed);
    EXPECT_FALSE(conversation.handshake.failure().isRefusal);
  }
}

TEST(ClientHandshakeTls, AServerThatDemandsItIsARefusal) {
  Conversation conversation(plain(), join({greeting(), reply(Option::go, ReplyType::tlsRequired)}));
  EXPECT_EQ(conversation.outcome.state, State::failed);
  EXPECT_EQ(conversation.handshake.failure().reply, ReplyType::tlsRequired);
}

}  // namespace
