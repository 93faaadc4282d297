#include "nbd/server_handshake.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "nbd/limits.h"
#include "tests/support/wire.h"

namespace {

using namespace std::string_literals;
using Nbd::InfoType;
using Nbd::Option;
using Nbd::ReplyType;
using Nbd::ServerHandshake;
using State = ServerHandshake::State;
using Wire::Buffer;
using Wire::contextData;
using Wire::counted;
using Wire::infoData;
using Wire::join;
using Wire::number;
using Wire::option;
using Wire::text;

constexpr std::uint16_t offered =
    Nbd::TransmissionFlag::hasFlags | Nbd::TransmissionFlag::sendFlush | Nbd::TransmissionFlag::sendDf;
constexpr std::uint16_t offeredWithoutDf = offered & ~Nbd::TransmissionFlag::sendDf;

const Nbd::ExportView disk{
    .name = "disk",
    .description = "the first disk",
    .size = 0x1'0000'0200,
    .transmissionFlags = offered,
    .minimumBlock = 512,
    .preferredBlock = 4096,
    .maximumPayload = Nbd::maxPayload,
};
const Nbd::ExportView tape{.name = "tape", .description = "", .size = 0, .transmissionFlags = 0};

Wire::Directory twoExports() {
  Wire::Directory directory;
  directory.add(disk);
  directory.add(tape);
  return directory;
}

/// A handshake with a client that sends `options` behind its flags; the greeting is left out of `output`.
struct Conversation {
  explicit Conversation(const Buffer& options, ServerHandshake::Policy policy = {},
                        Buffer flags = Wire::clientFlags(), Wire::Directory exports = twoExports())
      : directory(std::move(exports)), handshake(directory, policy) {
    const Buffer input = join({flags, options});
    outcome = Wire::converse(handshake, input);
    sent = input.size();
    replies = Wire::parseReplies(outcome.output).value_or(std::vector<Wire::OptionReply>());
  }

  [[nodiscard]] std::vector<ReplyType> replyTypes() const {
    std::vector<ReplyType> types;
    for (const Wire::OptionReply& reply : replies) types.push_back(reply.type);
    return types;
  }

  Wire::Directory directory;
  ServerHandshake handshake;
  Wire::Outcome<ServerHandshake> outcome;
  std::size_t sent = 0;
  std::vector<Wire::OptionReply> replies;
};

// --- Every option, in every way in which it can be answered
// ------------------------------------------------------

struct OptionCase {
  const char* name;
  std::vector<Buffer> options;
  std::vector<ReplyType> replies;
  State state = State::negotiating;
};

const Buffer structured = option(Option::structuredReply);
constexpr auto unheardOf = static_cast<Option>(0x1234'5678);
constexpr auto ack = ReplyType::ack;
constexpr auto server = ReplyType::server;
constexpr auto information = ReplyType::info;
constexpr auto context = ReplyType::metaContext;
constexpr auto unsupported = ReplyType::unsupported;
constexpr auto invalid = ReplyType::invalid;
constexpr auto unknown = ReplyType::unknown;
constexpr auto tooBig = ReplyType::tooBig;

std::vector<std::string> manyQueries(std::size_t count) { return std::vector<std::string>(count, "x-none:"); }

const OptionCase optionCases[] = {
    {"Abort", {option(Option::abort)}, {ack}, State::closing},
    {"AbortWithData", {option(Option::abort, text("bye"))}, {ack}, State::closing},
    {"AbortWithTooMuchData", {option(Option::abort, Buffer(100'000))}, {ack}, State::closing},

    {"List", {option(Option::list)}, {server, server, ack}},
    {"ListTwice", {option(Option::list), option(Option::list)}, {server, server, ack, server, server, ack}},
    {"ListWithData", {option(Option::list, text("x"))}, {invalid}},

    {"PeekExport", {option(Option::peekExport)}, {unsupported}},
    {"StartTls", {option(Option::startTls)}, {unsupported}},
    {"ExtendedHeaders", {option(Option::extendedHeaders)}, {ack}},
    {"ExtendedHeadersTwice", {option(Option::extendedHeaders), option(Option::extendedHeaders)}, {ack, ack}},
    {"ExtendedHeadersWithData", {option(Option::extendedHeaders, text("x"))}, {invalid}},
    {"ExtendedHeadersWithTooMuchData", {option(Option::extendedHeaders, Buffer(100'000))}, {tooBig}},
    {"ExtendedHeadersAfterStructuredReply", {structured, option(Option::extendedHeaders)}, {ack, ack}},
    {"StructuredReplyAfterExtendedHeaders",
     {option(Option::extendedHeaders), structured, option(Option::list)},
     {ack, ReplyType::extendedHeadersRequired, server, server, ack}},
    {"StructuredReplyWithDataAfterExtendedHeaders",
     {option(Option::extendedHeaders), option(Option::structuredReply, text("x"))},
     {ack, invalid}},
    {"GoAfterExtendedHeaders",
     {option(Option::extendedHeaders), option(Option::go, infoData("disk"))},
     {ack, information, ack},
     State::transmission},
    {"ExportNameAfterExtendedHeaders",
     {option(Option::extendedHeaders), option(Option::exportName, text("disk"))},
     {ack},
     State::failed},
    {"ContextsAfterExtendedHeaders",
     {option(Option::extendedHeaders), option(Option::listMetaContext, contextData("disk", {})),
      option(Option::setMetaContext, contextData("disk", {"base:allocation"}))},
     {ack, context, ack, context, ack}},
    {"Unknown", {option(unheardOf)}, {unsupported}},
    {"UnknownWithData",
     {option(unheardOf, text("whatever it means")), option(Option::abort)},
     {unsupported, ack},
     State::closing},
    {"UnknownOfTheLargestSize",
     {option(unheardOf, Buffer(Nbd::maxOptionDrained)), option(Option::abort)},
     {unsupported, ack},
     State::closing},
    {"UnknownTooLong", {option(unheardOf, Buffer(Nbd::maxOptionDrained + 1))}, {}, State::failed},
    {"UnknownAnnouncingEverything",
     {number(Nbd::optionMagic), number(unheardOf), number(std::uint32_t{0xffff'ffff})},
     {},
     State::failed},
    {"KnownTooLongToKeep",
     {option(Option::go, Buffer(Nbd::maxOptionLength + 1)), option(Option::abort)},
     {tooBig, ack},
     State::closing},
    {"KnownAtTheKeptSize", {option(Option::go, Buffer(Nbd::maxOptionLength))}, {invalid}},
    {"KnownTooLong", {option(Option::go, Buffer(Nbd::maxOptionDrained + 1))}, {}, State::failed},
    {"ExportNameTooLongToKeep",
     {option(Option::exportName, Buffer(Nbd::maxOptionLength + 1))},
     {},
     State::failed},
    {"WrongMagic",
     {number(Nbd::optionMagic + 1), number(Option::list), number(std::uint32_t{0})},
     {},
     State::failed},
    {"SecondOptionWithWrongMagic", {option(Option::list), Buffer(16)}, {server, server, ack}, State::failed},

    {"Info", {option(Option::info, infoData("disk"))}, {information, ack}},
    {"InfoOfEverything",
     {option(Option::info, infoData("disk", {InfoType::exportInfo, InfoType::name, InfoType::description,
                                             InfoType::blockSize}))},
     {information, information, information, information, ack}},
    {"InfoOfUnknownKinds",
     {option(Option::info, infoData("disk", {InfoType{77}, InfoType{0xffff}}))},
     {information, ack}},
    {"InfoOfOneKindTwice",
     {option(Option::info, infoData("disk", {InfoType::name, InfoType::name}))},
     {information, information, ack}},
    {"InfoWithoutADescription",
     {option(Option::info, infoData("tape", {InfoType::description}))},
     {information, ack}},
    {"InfoOfUnknownExport", {option(Option::info, infoData("floppy"))}, {unknown}},
    {"InfoOfDefaultWhereThereAreTwo", {option(Option::info, infoData(""))}, {unknown}},
    {"InfoEmpty", {option(Option::info)}, {invalid}},
    {"InfoNameLongerThanTheOption",
     {option(Option::info, join({number(std::uint32_t{5}), text("disk"), number(std::uint16_t{0})}))},
     {invalid}},
    {"InfoNameReachingIntoTheCount",
     {option(Option::info, join({number(std::uint32_t{6}), text("disk"), number(std::uint16_t{0})}))},
     {invalid}},
    {"InfoNameLengthThatWraps",
     {option(Option::info,
             join({number(std::uint32_t{0xffff'fffc}), text("disk"), number(std::uint16_t{0})}))},
     {invalid}},
    {"InfoWithoutACount", {option(Option::info, counted("disk"))}, {invalid}},
    {"InfoWithHalfACount", {option(Option::info, join({counted("disk"), Buffer(1)}))}, {invalid}},
    {"InfoCountTooHigh",
     {option(Option::info, join({counted("disk"), number(std::uint16_t{2}), Buffer(2)}))},
     {invalid}},
    {"InfoCountTooLow",
     {option(Option::info, join({counted("disk"), number(std::uint16_t{1}), Buffer(4)}))},
     {invalid}},
    {"InfoNameWithNul", {option(Option::info, infoData("di\0sk"s))}, {invalid}},
    {"InfoNameInBadUtf8", {option(Option::info, infoData("disk\xff"))}, {invalid}},
    {"InfoNameOfTheLargestSize", {option(Option::info, infoData(std::string(4096, 'n')))}, {unknown}},
    {"InfoNameTooLong", {option(Option::info, infoData(std::string(4097, 'n')))}, {invalid}},

    {"Go", {option(Option::go, infoData("disk"))}, {information, ack}, State::transmission},
    {"GoAfterARefusedGo",
     {option(Option::go, infoData("floppy")), option(Option::go, infoData("disk"))},
     {unknown, information, ack},
     State::transmission},
    {"GoMalformed", {option(Option::go, text("disk"))}, {invalid}},
    {"GoNameWithNul", {option(Option::go, infoData("\0"s))}, {invalid}},
    {"GoNameInBadUtf8", {option(Option::go, infoData("\xc0\x80"))}, {invalid}},
    {"GoToUnknownExport", {option(Option::go, infoData("floppy"))}, {unknown}},

    {"StructuredReply", {structured}, {ack}},
    {"StructuredReplyTwice", {structured, structured}, {ack, ack}},
    {"StructuredReplyWithData", {option(Option::structuredReply, text("x"))}, {invalid}},

    {"ListContextsTooEarly", {option(Option::listMetaContext, contextData("disk", {}))}, {invalid}},
    {"ListContextsAll",
     {structured, option(Option::listMetaContext, contextData("disk", {}))},
     {ack, context, ack}},
    {"ListContextsOfANamespace",
     {structured, option(Option::listMetaContext, contextData("disk", {"base:"}))},
     {ack, context, ack}},
    {"ListContextsByName",
     {structured, option(Option::listMetaContext, contextData("disk", {"base:allocation"}))},
     {ack, context, ack}},
    {"ListContextsOnce",
     {structured, option(Option::listMetaContext, contextData("disk", {"base:", "base:allocation"}))},
     {ack, context, ack}},
    {"ListContextsUnknownLeaf",
     {structured, option(Option::listMetaContext, contextData("disk", {"base:none"}))},
     {ack, ack}},
    {"ListContextsUnknownNamespace",
     {structured, option(Option::listMetaContext, contextData("disk", {"qemu:dirty-bitmap:x"}))},
     {ack, ack}},
    {"ListContextsNoNamespace",
     {structured, option(Option::listMetaContext, contextData("disk", {"base"}))},
     {ack, invalid}},
    {"ListContextsEmptyNamespace",
     {structured, option(Option::listMetaContext, contextData("disk", {":x"}))},
     {ack, invalid}},
    {"ListContextsEmptyQuery",
     {structured, option(Option::listMetaContext, contextData("disk", {""}))},
     {ack, invalid}},
    {"ListContextsQueryWithNul",
     {structured, option(Option::listMetaContext, contextData("disk", {"base:\0"s}))},
     {ack, invalid}},
    {"ListContextsQueryInBadUtf8",
     {structured, option(Option::listMetaContext, contextData("disk", {"base:\xff"}))},
     {ack, invalid}},
    {"ListContextsQueryTooLong",
     {structured, option(Option::listMetaContext, contextData("disk", {"x:" + std::string(4095, 'q')}))},
     {ack, invalid}},
    {"ListContextsUnknownExport",
     {structured, option(Option::listMetaContext, contextData("floppy", {}))},
     {ack, unknown}},
    {"ListContextsMostQueries",
     {structured, option(Option::listMetaContext, contextData("disk", manyQueries(Nbd::maxQueries)))},
     {ack, ack}},
    {"ListContextsTooManyQueries",
     {structured, option(Option::listMetaContext, contextData("disk", manyQueries(Nbd::maxQueries + 1)))},
     {ack, tooBig}},
    {"ListContextsCountBeyondTheOption",
     {structured,
      option(Option::listMetaContext, join({counted("disk"), number(std::uint32_t{0xffff'ffff})}))},
     {ack, invalid}},
    {"ListContextsQueryBeyondTheOption",
     {structured, option(Option::listMetaContext, join({counted("disk"), number(std::uint32_t{1}),
                                                        number(std::uint32_t{6}), text("base:")}))},
     {ack, invalid}},
    {"ListContextsBytesBehind",
     {structured, option(Option::listMetaContext, join({contextData("disk", {"base:"}), Buffer(1)}))},
     {ack, invalid}},
    {"ListContextsWithoutACount",
     {structured, option(Option::listMetaContext, counted("disk"))},
     {ack, invalid}},
    {"ListContextsEmpty", {structured, option(Option::listMetaContext)}, {ack, invalid}},

    {"SetContextsTooEarly",
     {option(Option::setMetaContext, contextData("disk", {"base:allocation"}))},
     {invalid}},
    {"SetContexts",
     {structured, option(Option::setMetaContext, contextData("disk", {"base:allocation"}))},
     {ack, context, ack}},
    {"SetContextsOnce",
     {structured,
      option(Option::setMetaContext, contextData("disk", {"base:allocation", "base:allocation"}))},
     {ack, context, ack}},
    {"SetContextsNone", {structured, option(Option::setMetaContext, contextData("disk", {}))}, {ack, ack}},
    {"SetContextsNamespaceSelectsNothing",
     {structured, option(Option::setMetaContext, contextData("disk", {"base:"}))},
     {ack, ack}},
    {"SetContextsUnknown",
     {structured, option(Option::setMetaContext, contextData("disk", {"x-a:b", "base:c"}))},
     {ack, ack}},
    {"SetContextsUnknownExport",
     {structured, option(Option::setMetaContext, contextData("floppy", {"base:allocation"}))},
     {ack, unknown}},
    {"SetContextsMalformed", {structured, option(Option::setMetaContext, text("disk"))}, {ack, invalid}},
    {"SetContextsTooManyQueries",
     {structured, option(Option::setMetaContext, contextData("disk", manyQueries(Nbd::maxQueries + 1)))},
     {ack, tooBig}},
};

class ServerOption : public testing::TestWithParam<OptionCase> {};

TEST_P(ServerOption, IsAnsweredByTheProtocol) {
  const OptionCase& row = GetParam();
  Buffer options;
  for (const Buffer& part : row.options) options.insert(options.end(), part.begin(), part.end());
  const Conversation conversation(options);
  EXPECT_EQ(conversation.replyTypes(), row.replies);
  EXPECT_EQ(conversation.outcome.state, row.state);
  if (row.state != State::failed) {
    EXPECT_EQ(conversation.outcome.consumed, conversation.sent);
  }
  EXPECT_EQ(Wire::parseReplies(conversation.outcome.output).has_value(), true)
      << "output of whole replies only";
}

INSTANTIATE_TEST_SUITE_P(Table, ServerOption, testing::ValuesIn(optionCases),
                         [](const auto& row) { return row.param.name; });

// --- Greeting and client flags
// -----------------------------------------------------------------------------------

TEST(ServerGreeting, HasKnownBytes) {
  const Wire::Directory directory;
  Buffer output;
  ServerHandshake(directory, {}).greet(output);
  EXPECT_EQ(output, join({text("NBDMAGIC"), text("IHAVEOPT"), number(std::uint16_t{3})}));
}

TEST(ServerGreeting, OffersNoZeroesOnlyByPolicy) {
  const Wire::Directory directory;
  Buffer output;
  ServerHandshake(directory, {.noZeroes = false}).greet(output);
  EXPECT_EQ(output, join({text("NBDMAGIC"), text("IHAVEOPT"), number(std::uint16_t{1})}));
}

TEST(ServerGreeting, UnknownClientFlagsEndTheConnection) {
  for (int bit = 2; bit < 32; ++bit) {
    const Conversation conversation({}, {}, Wire::clientFlags(1U | 1U << bit));
    EXPECT_EQ(conversation.outcome.state, State::failed) << bit;
  }
}

TEST(ServerGreeting, NoZeroesThatWasNotOfferedEndsTheConnection) {
  const Conversation conversation({}, {.noZeroes = false}, Wire::clientFlags(3));
  EXPECT_EQ(conversation.outcome.state, State::failed);
}

TEST(ServerGreeting, AClientWithoutFixedNewstyleIsServed) {
  const Conversation conversation(option(Option::exportName, text("disk")), {}, Wire::clientFlags(0));
  EXPECT_EQ(conversation.outcome.state, State::transmission);
}

// --- What the answers hold
// ---------------------------------------------------------------------------------------

// By this the caller tells a client that gets on from one that plays for time.
TEST(ServerGreeting, OnlyAcknowledgedOptionsCountAsGranted) {
  const Wire::Directory directory = twoExports();
  ServerHandshake handshake(directory, {});
  Buffer output;
  const auto grants = [&](const Buffer& input) {
    const ServerHandshake::Progress progress = handshake.advance(input, output);
    EXPECT_EQ(progress.consumed, input.size());
    return progress.granted;
  };
  EXPECT_FALSE(grants(Wire::clientFlags()));
  EXPECT_FALSE(grants(option(unheardOf)));
  EXPECT_FALSE(grants(option(Option::info, infoData("nowhere", {}))));
  EXPECT_TRUE(grants(option(Option::info, infoData("disk", {}))));
  EXPECT_FALSE(grants(number(Nbd::optionMagic)));
  EXPECT_TRUE(grants(join({number(Option::structuredReply), number(std::uint32_t{0})})));
}

TEST(ServerExportName, IsPaddedUnlessBothAgreedOtherwise) {
  const Buffer plain = join({number(disk.size), number(offeredWithoutDf)});
  const Buffer padded = join({plain, Buffer(124)});
  EXPECT_EQ(Conversation(option(Option::exportName, text("disk")), {}, Wire::clientFlags(3)).outcome.output,
            plain);
  EXPECT_EQ(Conversation(option(Option::exportName, text("disk")), {}, Wire::clientFlags(1)).outcome.output,
            padded);
  EXPECT_EQ(Conversation(option(Option::exportName, text("disk")), {.noZeroes = false}, Wire::clientFlags(1))
                .outcome.output,
            padded);
}

TEST(ServerExportName, WithoutAnExportTheConnectionEnds) {
  for (const std::string& name : {"floppy"s, ""s, "disk\0"s, "\xff"s, std::string(4097, 'n')}) {
    const Conversation conversation(option(Option::exportName, text(name)));
    EXPECT_EQ(conversation.outcome.state, State::failed) << testing::PrintToString(name);
    EXPECT_TRUE(conversation.outcome.output.empty());
  }
}

/// Has every export that anybody asks for, and remembers the last one.
class EveryExport : public Nbd::ExportDirectory {
 public:
  [[nodiscard]] std::optional<Nbd::ExportView> find(std::string_view name) const override {
    asked = name;
    return disk;
  }
  [[nodiscard]] std::shared_ptr<const std::vector<Nbd::ListedExport>> list() const override {
    return std::make_shared<const std::vector<Nbd::ListedExport>>();
  }
  mutable std::optional<std::string> asked;
};

TEST(ServerExportName, WhatIsNoNameIsNotLookedUp) {
  for (const std::string& name : {"disk\0"s, "\xff"s, std::string(4097, 'n')}) {
    for (const Buffer& asked : {option(Option::exportName, text(name)), option(Option::go, infoData(name))}) {
      const EveryExport directory;
      ServerHandshake handshake(directory, {});
      const auto outcome = Wire::converse(handshake, join({Wire::clientFlags(), asked}));
      EXPECT_NE(outcome.state, State::transmission) << testing::PrintToString(name);
      EXPECT_EQ(directory.asked, std::nullopt);
    }
  }
}

TEST(ServerExportName, TheEmptyNameIsTheOnlyExport) {
  Wire::Directory directory;
  directory.add(disk);
  const Conversation conversation(option(Option::exportName), {}, Wire::clientFlags(), directory);
  EXPECT_EQ(conversation.outcome.state, State::transmission);
  EXPECT_EQ(conversation.handshake.agreement().exportView.name, "disk");
}

TEST(ServerGo, TellsWhatWasAskedFor) {
  const Conversation conversation(
      option(Option::go, infoData("disk", {InfoType::blockSize, InfoType::name, InfoType::description})));
  const auto about = [](InfoType type, const Buffer& rest) {
    return Wire::reply(Option::go, ReplyType::info, join({number(type), rest}));
  };
  EXPECT_EQ(conversation.outcome.output,
            join({about(InfoType::exportInfo, join({number(disk.size), number(offeredWithoutDf)})),
                  about(InfoType::name, text("disk")), about(InfoType::description, text("the first disk")),
                  about(InfoType::blockSize, join({number(std::uint32_t{512}), number(std::uint32_t{4096}),
                                                   number(std::uint32_t{64 * 1024 * 1024})})),
                  Wire::reply(Option::go, ReplyType::ack)}));
  EXPECT_TRUE(conversation.handshake.agreement().blockSizesRequested);
}

TEST(ServerGo, InfoAndGoTellTheSame) {
  const Buffer data = infoData("disk", {InfoType::blockSize, InfoType::name});
  const Conversation conversation(join({option(Option::info, data), option(Option::go, data)}));
  ASSERT_EQ(conversation.replies.size(), 8U);
  for (std::size_t index = 0; index < 4; ++index) {
    EXPECT_EQ(conversation.replies[index].data, conversation.replies[index + 4].data);
    EXPECT_EQ(conversation.replies[index].option, Option::info);
    EXPECT_EQ(conversation.replies[index + 4].option, Option::go);
  }
}

TEST(ServerGo, AnExportThatTheClientMustNotUseIsRefusedWithTheReason) {
  Wire::Directory directory;
  Nbd::ExportView closed = disk;
  closed.refusal = "not for you";
  directory.add(closed);
  ServerHandshake handshake(directory, {});
  const auto outcome =
      Wire::converse(handshake, join({Wire::clientFlags(), option(Option::go, infoData("none")),
                                      option(Option::go, infoData("disk")), option(Option::list)}));
  EXPECT_EQ(outcome.state, State::negotiating);
  const auto replies = Wire::parseReplies(outcome.output);
  ASSERT_TRUE(replies);
  ASSERT_EQ(replies->size(), 4U);
  EXPECT_EQ(replies->at(0).type, unknown);
  EXPECT_EQ(replies->at(1).type, ReplyType::policy);
  EXPECT_EQ(Nbd::asText(replies->at(1).data), "not for you");
  EXPECT_EQ(replies->at(2).type, server) << "it may know that it is there";

  ServerHandshake old(directory, {});
  EXPECT_EQ(Wire::converse(old, join({Wire::clientFlags(), option(Option::exportName, text("disk"))})).state,
            State::failed);
}

TEST(ServerGo, UnfragmentedReadsNeedStructuredReplies) {
  const Conversation without(option(Option::go, infoData("disk")));
  EXPECT_EQ(without.handshake.agreement().exportView.transmissionFlags, offeredWithoutDf);
  EXPECT_EQ(without.handshake.agreement().headers, Nbd::HeaderStyle::simple);
  const Conversation with(join({structured, option(Option::go, infoData("disk"))}));
  EXPECT_EQ(with.handshake.agreement().exportView.transmissionFlags, offered);
  EXPECT_EQ(with.handshake.agreement().headers, Nbd::HeaderStyle::structured);
}

TEST(ServerGo, FilteredBlockStatusNeedsExtendedHeaders) {
  Wire::Directory directory;
  directory.add({.name = "full", .transmissionFlags = 0xffff});
  for (const Buffer& headers : {Buffer(), structured, option(Option::extendedHeaders)}) {
    const Conversation conversation(join({headers, option(Option::go, infoData("full"))}), {},
                                    Wire::clientFlags(), directory);
    const ServerHandshake::Agreement& agreement = conversation.handshake.agreement();
    const bool isTold =
        (agreement.exportView.transmissionFlags & Nbd::TransmissionFlag::blockStatusPayload) != 0;
    EXPECT_EQ(isTold, agreement.headers == Nbd::HeaderStyle::extended);
    EXPECT_EQ((agreement.exportView.transmissionFlags & Nbd::TransmissionFlag::sendDf) != 0,
              !headers.empty());
  }
}

TEST(ServerGo, AlwaysSaysThatThereAreFlags) {
  const Conversation conversation(option(Option::go, infoData("tape")));
  EXPECT_EQ(conversation.handshake.agreement().exportView.transmissionFlags, Nbd::TransmissionFlag::hasFlags);
}

TEST(ServerGo, RequestsBehindItAreNotTouched) {
  const Buffer go = option(Option::go, infoData("disk"));
  const Conversation conversation(join({go, Buffer(1000)}));
  EXPECT_EQ(conversation.outcome.state, State::transmission);
  EXPECT_EQ(conversation.outcome.consumed, 4 + go.size());
}

TEST(ServerGo, AgreementBecomesTheLimitsOfRequests) {
  const Conversation conversation(
      join({structured, option(Option::setMetaContext, contextData("disk", {"base:allocation"})),
            option(Option::go, infoData("disk"))}));
  const Nbd::ExportLimits limits = conversation.handshake.agreement().limits();
  EXPECT_EQ(limits.size, disk.size);
  EXPECT_EQ(limits.transmissionFlags, offered);
  EXPECT_EQ(limits.minimumBlock, 512U);
  EXPECT_EQ(limits.maximumPayload, Nbd::maxPayload);
  EXPECT_EQ(limits.headers, Nbd::HeaderStyle::structured);
  EXPECT_TRUE(limits.blockStatus);
}

TEST(ServerList, TellsNamesAndDescriptions) {
  const Conversation conversation(option(Option::list));
  EXPECT_EQ(
      conversation.outcome.output,
      join({Wire::reply(Option::list, ReplyType::server, join({counted("disk"), text("the first disk")})),
            Wire::reply(Option::list, ReplyType::server, counted("tape")),
            Wire::reply(Option::list, ReplyType::ack)}));
}

TEST(ServerList, MayBeEmpty) {
  const Conversation conversation(option(Option::list), {}, Wire::clientFlags(), {});
  EXPECT_EQ(conversation.replyTypes(), (std::vector{ack}));
}

TEST(ServerList, MayBeForbidden) {
  const Conversation conversation(option(Option::list), {.listing = false});
  EXPECT_EQ(conversation.replyTypes(), (std::vector{ReplyType::policy}));
}

TEST(ServerList, TenThousandExportsLeaveInSmallSteps) {
  Wire::Directory directory;
  for (int index = 0; index < 10'000; ++index) {
    directory.add({.name = "export-" + std::to_string(index), .description = std::string(100, 'd')});
  }
  const Conversation conversation(join({option(Option::list), option(Option::abort)}), {},
                                  Wire::clientFlags(), std::move(directory));
  ASSERT_EQ(conversation.replies.size(), 10'002U);
  EXPECT_EQ(conversation.replies[9999].data, join({counted("export-9999"), text(std::string(100, 'd'))}));
  EXPECT_EQ(conversation.outcome.state, State::closing);
  EXPECT_LT(conversation.outcome.largestStep, Nbd::handshakeOutputStep + 256);
}

TEST(ServerPolicy, ExtendedHeadersMayBeOff) {
  const Conversation conversation(join({option(Option::extendedHeaders), structured}),
                                  {.extendedHeaders = false});
  EXPECT_EQ(conversation.replyTypes(), (std::vector<ReplyType>{unsupported, ack}));
  EXPECT_EQ(conversation.handshake.agreement().headers, Nbd::HeaderStyle::structured);
}

TEST(ServerPolicy, StructuredRepliesMayBeOff) {
  const Conversation conversation(
      join({structured, option(Option::listMetaContext, contextData("disk", {}))}),
      {.structuredReplies = false});
  EXPECT_EQ(conversation.replyTypes(), (std::vector{unsupported, invalid}));
}

// --- Metadata contexts
// -------------------------------------------------------------------------------------------

struct ContextCase {
  const char* name;
  std::vector<Buffer> options;
  bool selected;
};

const Buffer select = option(Option::setMetaContext, contextData("disk", {"base:allocation"}));
const Buffer goDisk = option(Option::go, infoData("disk"));

const ContextCase contextCases[] = {
    {"Selected", {structured, select, goDisk}, true},
    {"SelectedForExportName", {structured, select, option(Option::exportName, text("disk"))}, true},
    {"SelectedForAnotherExport", {structured, select, option(Option::go, infoData("tape"))}, false},
    {"NeverSelected", {structured, goDisk}, false},
    {"OnlyListed", {structured, option(Option::listMetaContext, contextData("disk", {})), goDisk}, false},
    {"ListingKeepsTheSelection",
     {structured, select, option(Option::listMetaContext, contextData("disk", {})), goDisk},
     true},
    {"Cleared", {structured, select, option(Option::setMetaContext, contextData("disk", {})), goDisk}, false},
    {"ReplacedByAnotherExports",
     {structured, select, option(Option::setMetaContext, contextData("tape", {"base:allocation"})), goDisk},
     false},
    {"ReplacedBySetThatIsMalformed",
     {structured, select, option(Option::setMetaContext, text("disk")), goDisk},
     false},
    {"ReplacedBySetOfUnknownExport",
     {structured, select, option(Option::setMetaContext, contextData("floppy", {"base:allocation"})), goDisk},
     false},
    {"ReplacedBySetThatIsTooLong",
     {structured, select, option(Option::setMetaContext, Buffer(Nbd::maxOptionLength + 1)), goDisk},
     false},
    {"SurvivesARefusedGo", {structured, select, option(Option::go, infoData("floppy")), goDisk}, true},
};

class ServerContext : public testing::TestWithParam<ContextCase> {};

TEST_P(ServerContext, HoldsForTheExportItWasSelectedFor) {
  Buffer options;
  for (const Buffer& part : GetParam().options) options.insert(options.end(), part.begin(), part.end());
  const Conversation conversation(options);
  ASSERT_EQ(conversation.outcome.state, State::transmission);
  EXPECT_EQ(conversation.handshake.agreement().allocationContext.has_value(), GetParam().selected);
}

INSTANTIATE_TEST_SUITE_P(Table, ServerContext, testing::ValuesIn(contextCases),
                         [](const auto& row) { return row.param.name; });

TEST(ServerContext, TheIdIsTheOneThatWasTold) {
  const Conversation conversation(join({structured, select, goDisk}));
  const auto id = conversation.handshake.agreement().allocationContext;
  ASSERT_TRUE(id.has_value());
  EXPECT_EQ(conversation.replies[1].data, join({number(*id), text("base:allocation")}));
}

TEST(ServerContext, NamesAreComparedAsTheyWereSent) {
  Wire::Directory directory;
  directory.add(disk);
  const Conversation conversation(
      join({structured, option(Option::setMetaContext, contextData("", {"base:allocation"})), goDisk}), {},
      Wire::clientFlags(), directory);
  EXPECT_EQ(conversation.outcome.state, State::transmission);
  EXPECT_FALSE(conversation.handshake.agreement().allocationContext.has_value());
}

// --- Bounds
// ------------------------------------------------------------------------------------------------------

TEST(ServerBounds, OptionsAreCounted) {
  Buffer options;
  const Buffer one = option(unheardOf);
  for (std::uint32_t index = 0; index < Nbd::maxOptionsPerConnection; ++index) {
    options.insert(options.end(), one.begin(), one.end());
  }
  EXPECT_EQ(Conversation(options).outcome.state, State::negotiating);
  options.insert(options.end(), one.begin(), one.end());
  EXPECT_EQ(Conversation(options).outcome.state, State::failed);
}

TEST(ServerBounds, BytesAreCounted) {
  const Buffer large = option(unheardOf, Buffer(Nbd::maxOptionDrained));
  Buffer options;
  for (std::uint64_t total = 0; total <= Nbd::maxHandshakeBytes; total += large.size()) {
    options.insert(options.end(), large.begin(), large.end());
  }
  EXPECT_EQ(Conversation(options).outcome.state, State::failed);
}

TEST(ServerBounds, OneCallAnswersOneOption) {
  const Wire::Directory directory = twoExports();
  ServerHandshake handshake(directory, {});
  const Buffer one = option(unheardOf);
  const Buffer input = join({Wire::clientFlags(), one, one, one});
  Buffer output;
  const ServerHandshake::Progress progress = handshake.advance(input, output);
  EXPECT_EQ(progress.consumed, 4 + one.size());
  EXPECT_EQ(Wire::parseReplies(output)->size(), 1U);
}

// --- TLS

ServerHandshake::Policy withTls(Nbd::TlsMode mode) { return {.tls = mode}; }

TEST(ServerHandshakeTls, IsNotThereUnlessThePolicyHasIt) {
  Conversation conversation(join({option(Option::startTls), option(Option::go, infoData("disk", {}))}));
  EXPECT_EQ(conversation.replies.front().type, ReplyType::unsupported);
  EXPECT_EQ(conversation.outcome.state, State::transmission);
}

TEST(ServerHandshakeTls, BeginsBehindTheAcknowledgementAndVoidsWhatWasAgreedOn) {
  for (const Nbd::TlsMode mode : {Nbd::TlsMode::allowed, Nbd::TlsMode::required}) {
    const Wire::Directory directory = twoExports();
    ServerHandshake handshake(directory, withTls(mode));
    const bool clear = mode == Nbd::TlsMode::allowed;
    const Buffer before = join({Wire::clientFlags(), option(Option::structuredReply),
                                option(Option::setMetaContext, contextData("disk", {"base:allocation"})),
                                option(Option::startTls)});
    const auto inTheClear = Wire::converse(handshake, before);
    ASSERT_EQ(inTheClear.state, State::startTls);
    const auto replies = Wire::parseReplies(inTheClear.output).value();
    EXPECT_EQ(replies.front().type, clear ? ReplyType::ack : ReplyType::tlsRequired);
    EXPECT_EQ(replies.back().option, Option::startTls);
    EXPECT_EQ(replies.back().type, ReplyType::ack);

    handshake.secured();
    const auto inside = Wire::converse(handshake, option(Option::go, infoData("disk", {})));
    ASSERT_EQ(inside.state, State::transmission);
    EXPECT_EQ(handshake.agreement().headers, Nbd::HeaderStyle::simple);
    EXPECT_FALSE(handshake.agreement().allocationContext.has_value());
  }
}

TEST(ServerHandshakeTls, RequiredAnswersNothingElseBefore) {
  for (const Option each :
       {Option::list, Option::info, Option::go, Option::structuredReply, Option::listMetaContext,
        Option::setMetaContext, Option::extendedHeaders, static_cast<Option>(0x7777)}) {
    for (const Buffer& data : {Buffer(), infoData("disk", {}), Buffer(Nbd::maxOptionLength + 1)}) {
      Conversation conversation(option(each, data), withTls(Nbd::TlsMode::required));
      ASSERT_EQ(conversation.replies.size(), 1U);
      EXPECT_EQ(conversation.replies.front().type, ReplyType::tlsRequired);
      EXPECT_EQ(conversation.outcome.state, State::negotiating);
    }
  }
}

TEST(ServerHandshakeTls, RequiredEndsWithExportNameAndLetsLeave) {
  Conversation named(option(Option::exportName, text("disk")), withTls(Nbd::TlsMode::required));
  EXPECT_EQ(named.outcome.state, State::failed);
  EXPECT_TRUE(named.outcome.output.empty());
  Conversation leaving(option(Option::abort), withTls(Nbd::TlsMode::required));
  EXPECT_EQ(leaving.outcome.state, State::closing);
  EXPECT_EQ(leaving.replies.front().type, ReplyType::ack);
}

TEST(ServerHandshakeTls, BytesBehindStartTlsEndTheConnection) {
  for (const Nbd::TlsMode mode : {Nbd::TlsMode::allowed, Nbd::TlsMode::required}) {
    for (const Buffer& injected : {option(Option::list), Buffer(1), option(Option::startTls)}) {
      Conversation conversation(join({option(Option::startTls), injected}), withTls(mode));
      EXPECT_EQ(conversation.outcome.state, State::failed);
    }
  }
}

TEST(ServerHandshakeTls, IsNotBegunTwice) {
  const Wire::Directory directory = twoExports();
  ServerHandshake handshake(directory, withTls(Nbd::TlsMode::required));
  ASSERT_EQ(Wire::converse(handshake, join({Wire::clientFlags(), option(Option::startTls)})).state,
            State::startTls);
  handshake.secured();
  const auto outcome = Wire::converse(handshake, join({option(Option::startTls), option(Option::list)}));
  const auto replies = Wire::parseReplies(outcome.output).value();
  EXPECT_EQ(replies.front().type, ReplyType::invalid);
  EXPECT_EQ(replies.back().type, ReplyType::ack);
}

TEST(ServerHandshakeTls, TakesNoData) {
  Conversation conversation(option(Option::startTls, Buffer(3)), withTls(Nbd::TlsMode::required));
  EXPECT_EQ(conversation.replies.front().type, ReplyType::invalid);
  EXPECT_EQ(conversation.outcome.state, State::negotiating);
}

// --- Exports that a client may not use

TEST(ServerHandshakeRefusal, IsToldByPolicyAndInItsWords) {
  Wire::Directory directory;
  Nbd::ExportView refused = disk;
  refused.refusal = "not for you";
  directory.add(refused);
  for (const Option each : {Option::info, Option::go, Option::setMetaContext, Option::listMetaContext}) {
    const bool isContext = each == Option::setMetaContext || each == Option::listMetaContext;
    Conversation conversation(
        join({option(Option::structuredReply),
              option(each, isContext ? contextData("disk", {"base:allocation"}) : infoData("disk", {}))}),
        {}, Wire::clientFlags(), directory);
    ASSERT_EQ(conversation.replies.size(), 2U);
    EXPECT_EQ(conversation.replies.back().type, ReplyType::policy);
    EXPECT_EQ(conversation.replies.back().data, text("not for you"));
    EXPECT_EQ(conversation.outcome.state, State::negotiating);
  }
  Conversation named(option(Option::exportName, text("disk")), {}, Wire::clientFlags(), directory);
  EXPECT_EQ(named.outcome.state, State::failed);
  EXPECT_TRUE(named.outcome.output.empty());
}

}  // namespace
