#include "nbd/extension.h"

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <string>
#include <vector>

#include "nbd/client_handshake.h"
#include "nbd/extension_inquiry.h"
#include "nbd/server_handshake.h"
#include "tests/support/extension_peer.h"
#include "tests/support/wire.h"

namespace {

using namespace Nbd::Extension;
using namespace std::string_literals;
using Nbd::ClientHandshake;
using Nbd::Option;
using Nbd::ReplyType;
using Nbd::ServerHandshake;
using Wire::Buffer;
using Wire::join;
using Wire::number;
using Wire::text;

// --- Values

constexpr auto uuidOne = "00112233-4455-6677-8899-aabbccddeeff";

TEST(ExtensionUuid, ReadsBackAsItIsPrinted) {
  const std::optional<Uuid> uuid = parseUuid(uuidOne);
  ASSERT_TRUE(uuid);
  EXPECT_EQ((*uuid)[1], std::byte{0x11});
  EXPECT_EQ(uuidText(*uuid), uuidOne);
  EXPECT_EQ(parseUuid(""), Uuid{});
  EXPECT_EQ(uuidText(Uuid{}), "");
}

TEST(ExtensionUuid, NothingElseIsOne) {
  for (const char* text : {"0", "00112233445566778899aabbccddeeff", "00112233-4455-6677-8899-aabbccddeef",
                           "00112233-4455-6677-8899-aabbccddeeff0", "00112233-4455-6677-8899-AABBCCDDEEFF",
                           "00112233-4455-6677-88990aabbccddeeff", "0011223g-4455-6677-8899-aabbccddeeff"}) {
    EXPECT_FALSE(parseUuid(text)) << text;
  }
}

// The bytes of the worked example in docs/extension.md.
TEST(ExtensionHello, HasTheDocumentedBytes) {
  const Hello hello{
      .capabilities = Capability::compression, .server = *parseUuid(uuidOne), .product = "Talvek NBD 1.2.3"};
  const Buffer expected =
      join({number(std::uint16_t{1}), number(std::uint16_t{1}), number(std::uint32_t{1}),
            number(std::uint64_t{0x0011'2233'4455'6677}), number(std::uint64_t{0x8899'aabb'ccdd'eeff}),
            number(std::uint16_t{16}), text("Talvek NBD 1.2.3")});
  EXPECT_EQ(encodeHello(hello), expected);
  EXPECT_EQ(decodeHello(expected), hello);
  EXPECT_EQ(decodeHello(join({expected, text("what a later version adds")})), hello);
}

TEST(ExtensionHello, IsRefusedWhenItMakesNoSense) {
  const Buffer good = encodeHello({.product = "x"});
  for (std::size_t length = 0; length < good.size(); ++length)
    EXPECT_FALSE(decodeHello(Nbd::Bytes(good).first(length))) << length;
  EXPECT_FALSE(decodeHello(encodeHello({.minimumVersion = 2, .maximumVersion = 1})));
  EXPECT_FALSE(decodeHello(encodeHello({.minimumVersion = 0, .maximumVersion = 1})));
  EXPECT_FALSE(decodeHello(encodeHello({.product = "\xff"})));
}

TEST(ExtensionHello, TheHighestCommonVersionIsSpoken) {
  const auto speaking = [](std::uint16_t minimum, std::uint16_t maximum) {
    return Hello{.minimumVersion = minimum, .maximumVersion = maximum};
  };
  EXPECT_EQ(commonVersion(speaking(1, 1), speaking(1, 1)), 1);
  EXPECT_EQ(commonVersion(speaking(1, 3), speaking(2, 5)), 3);
  EXPECT_EQ(commonVersion(speaking(1, 1), speaking(2, 5)), std::nullopt);
  EXPECT_EQ(commonVersion(speaking(7, 9), speaking(2, 5)), std::nullopt);
}

const std::vector<Property> tree = {
    {.depth = 0, .type = Property::Type::text, .name = "host", .octets = "example"},
    {.depth = 0, .type = Property::Type::list, .name = "addresses"},
    {.depth = 1, .type = Property::Type::text, .name = "eth0", .octets = "192.0.2.7"},
    {.depth = 1, .type = Property::Type::list, .name = "more"},
    {.depth = 2, .type = Property::Type::octets, .name = "raw", .octets = "\0\xff"s},
    {.depth = 0, .type = Property::Type::number, .name = "exports", .number = 3},
    {.depth = 0, .type = Property::Type::none, .name = "nothing"},
};

Buffer encoded(const std::vector<Property>& properties) {
  Buffer body;
  for (const Property& property : properties) EXPECT_TRUE(appendProperty(body, property));
  return body;
}

TEST(ExtensionProperties, ReadBackAsTheyWereWritten) {
  std::vector<Property> properties;
  EXPECT_TRUE(readProperties(encoded(tree), properties));
  EXPECT_EQ(properties, tree);
}

TEST(ExtensionProperties, GoOnInTheNextMessage) {
  for (std::size_t cut = 0; cut <= tree.size(); ++cut) {
    const auto middle = tree.begin() + static_cast<std::ptrdiff_t>(cut);
    std::vector<Property> properties;
    EXPECT_TRUE(readProperties(encoded({tree.begin(), middle}), properties));
    EXPECT_TRUE(readProperties(encoded({middle, tree.end()}), properties));
    EXPECT_EQ(properties, tree);
  }
}

TEST(ExtensionProperties, OnlyListsHaveMembers) {
  const Property number{.depth = 0, .type = Property::Type::number, .name = "a"};
  const Property list{.depth = 0, .type = Property::Type::list, .name = "a"};
  const Property below{.depth = 1, .type = Property::Type::none, .name = "b"};
  const Property farBelow{.depth = 2, .type = Property::Type::none, .name = "c"};
  const auto reads = [](const std::vector<Property>& properties) {
    std::vector<Property> out;
    return readProperties(encoded(properties), out);
  };
  EXPECT_TRUE(reads({list, below, below, number}));
  EXPECT_FALSE(reads({below}));
  EXPECT_FALSE(reads({number, below}));
  EXPECT_FALSE(reads({list, farBelow}));
}

TEST(ExtensionProperties, AreBounded) {
  std::vector<Property> deep;
  for (std::size_t depth = 0; depth < Nbd::maxPropertyDepth; ++depth)
    deep.push_back({.depth = depth, .type = Property::Type::list, .name = "l"});
  std::vector<Property> properties;
  EXPECT_TRUE(readProperties(encoded(deep), properties));
  EXPECT_FALSE(readProperties(encoded({{.depth = deep.size(), .name = "x"}}), properties));

  properties.assign(Nbd::maxProperties, {});
  EXPECT_FALSE(readProperties(encoded({{.name = "one more"}}), properties));
}

TEST(ExtensionProperties, EveryCutIsNoticed) {
  const Buffer whole = encoded(tree);
  std::size_t good = 0;
  for (std::size_t length = 0; length < whole.size(); ++length) {
    std::vector<Property> properties;
    good += readProperties(Nbd::Bytes(whole).first(length), properties) ? 1U : 0U;
  }
  EXPECT_EQ(good, tree.size());  // the cuts between two of them
}

const std::vector<ExportEntry> twoExports = {
    {.uuid = *parseUuid(uuidOne), .size = 1 << 20, .flags = 0x0d6d, .name = "disk"},
    {.uuid = {}, .size = 0, .flags = 3, .name = "t\xc3\xa4pe"},
};

TEST(ExtensionExports, HaveTheDocumentedBytes) {
  Buffer body;
  EXPECT_TRUE(appendExport(body, twoExports.front()));
  EXPECT_EQ(body, join({number(std::uint64_t{0x0011'2233'4455'6677}),
                        number(std::uint64_t{0x8899'aabb'ccdd'eeff}), number(std::uint64_t{1 << 20}),
                        number(std::uint32_t{0x0d6d}), number(std::uint16_t{4}), text("disk")}));
  std::vector<ExportEntry> entries;
  EXPECT_TRUE(readExports(body, entries));
  EXPECT_EQ(entries, std::vector<ExportEntry>{twoExports.front()});
  for (std::size_t length = 1; length < body.size(); ++length)
    EXPECT_FALSE(readExports(Nbd::Bytes(body).first(length), entries)) << length;
}

TEST(ExtensionExports, AFullMessageSendsThemToTheNext) {
  const ExportEntry longest{.name = std::string(Nbd::maxStringLength, 'n')};
  Buffer body;
  EXPECT_TRUE(appendExport(body, longest));
  EXPECT_TRUE(appendExport(body, longest));
  const Buffer before = body;
  EXPECT_FALSE(appendExport(body, longest));
  EXPECT_EQ(body, before);
}

TEST(ExtensionCompression, HasTheDocumentedBytes) {
  const Compression wanted{.blockLength = 131'072};
  const Buffer bytes = join({number(std::uint16_t{1}), number(std::uint32_t{131'072})});
  EXPECT_EQ(encodeCompression(wanted), bytes);
  EXPECT_EQ(decodeCompression(bytes), wanted);
  EXPECT_FALSE(decodeCompression(join({bytes, text("x")})));
  EXPECT_FALSE(decodeCompression(Nbd::Bytes(bytes).first(5)));
}

// --- The server's machine

Wire::Directory oneExport() {
  Wire::Directory directory;
  directory.add({.name = "disk", .size = 4096});
  return directory;
}

Buffer question(std::uint16_t version, Kind kind, const Buffer& body = {}) {
  return Wire::option(Option::extension, join({number(version), number(kind), body}));
}

Buffer hello() { return question(helloVersion, Kind::hello, encodeHello({.product = "test"})); }

struct Served {
  Served(Wire::ExtensionPeer* handler, const Buffer& options)
      : directory(oneExport()), handshake(directory, {}, handler) {
    outcome = Wire::converse(handshake, join({Wire::clientFlags(), options}));
    replies = Wire::parseReplies(outcome.output).value_or(std::vector<Wire::OptionReply>());
  }

  [[nodiscard]] std::vector<ReplyType> types() const {
    std::vector<ReplyType> types;
    for (const auto& reply : replies) types.push_back(reply.type);
    return types;
  }

  Wire::Directory directory;
  ServerHandshake handshake;
  Wire::Outcome<ServerHandshake> outcome;
  std::vector<Wire::OptionReply> replies;
};

TEST(ExtensionServer, WithoutAHandlerTheOptionIsUnknown) {
  const Served served(nullptr, join({hello(), Wire::option(Option::go, Wire::infoData("disk"))}));
  EXPECT_EQ(served.types(), (std::vector{ReplyType::unsupported, ReplyType::info, ReplyType::ack}));
  EXPECT_EQ(served.outcome.state, ServerHandshake::State::transmission);
}

TEST(ExtensionServer, AnswersInMessagesOfTheSameKind) {
  Wire::ExtensionPeer peer;
  const Served served(&peer, hello());
  EXPECT_EQ(served.types(), (std::vector{ReplyType::extension, ReplyType::ack}));
  EXPECT_EQ(served.replies.front().data,
            join({number(helloVersion), number(Kind::hello), encodeHello(peer.self)}));
  ASSERT_EQ(peer.asked.size(), 1U);
  EXPECT_EQ(peer.asked.front().body, encodeHello({.product = "test"}));
}

TEST(ExtensionServer, RefusesVersionsThatItDoesNotSpeak) {
  Wire::ExtensionPeer peer;
  const Served served(&peer,
                      join({question(2, Kind::exports), question(0, Kind::exports), question(1, Kind::hello),
                            Wire::option(Option::extension, text("abc")), Wire::option(Option::extension)}));
  EXPECT_EQ(served.types(), (std::vector{ReplyType::unsupported, ReplyType::unsupported,
                                         ReplyType::unsupported, ReplyType::invalid, ReplyType::invalid}));
  EXPECT_TRUE(peer.asked.empty());
}

TEST(ExtensionServer, TellsWhatTheHandlerRefuses) {
  Wire::ExtensionPeer peer;
  peer.refusal = Refusal{.type = ReplyType::policy, .text = "not today"};
  const Served served(&peer, join({question(1, Kind::exports), hello()}));
  EXPECT_EQ(served.types(), (std::vector{ReplyType::policy, ReplyType::extension, ReplyType::ack}));
  EXPECT_EQ(served.replies.front().data, text("not today"));
}

TEST(ExtensionServer, WaitsForTheHandler) {
  Wire::ExtensionPeer peer;
  peer.pauses = 1;
  const Wire::Directory directory = oneExport();
  ServerHandshake handshake(directory, {}, &peer);
  Buffer output;
  Buffer input = join({Wire::clientFlags(), hello(), hello()});
  auto progress = handshake.advance(input, output);
  EXPECT_TRUE(progress.waiting);
  EXPECT_TRUE(output.empty());
  const std::size_t consumed = progress.consumed;
  EXPECT_EQ(consumed, Wire::clientFlags().size() + hello().size());
  input.erase(input.begin(), input.begin() + static_cast<std::ptrdiff_t>(consumed));
  progress = handshake.advance(input, output);  // the message
  EXPECT_TRUE(progress.waiting);
  EXPECT_FALSE(output.empty());
  EXPECT_EQ(progress.consumed, 0U);
  progress = handshake.advance(input, output);  // the end
  EXPECT_FALSE(progress.waiting);
  EXPECT_TRUE(progress.granted);
  EXPECT_EQ(progress.consumed, 0U);
  progress = handshake.advance(input, output);
  EXPECT_EQ(progress.consumed, hello().size());
}

TEST(ExtensionServer, SendsALongAnswerInSteps) {
  Wire::ExtensionPeer peer;
  peer.exports.assign(20'000, twoExports.front());
  const Served served(&peer, question(1, Kind::exports));
  std::vector<ExportEntry> entries;
  for (const auto& reply : served.replies) {
    if (reply.type == ReplyType::extension) {
      EXPECT_TRUE(readExports(Nbd::Bytes(reply.data).subspan(headerSize), entries));
    }
    EXPECT_LE(reply.data.size(), Nbd::maxOptionReplyLength);
  }
  EXPECT_EQ(entries, peer.exports);
  EXPECT_LE(served.outcome.largestStep, Nbd::handshakeOutputStep + Nbd::maxExtensionBody + 64);
}

// --- Both machines

struct Both {
  Both(Wire::ExtensionPeer* peer, Inquiry::Wish inquiryWish, ClientHandshake::Wish wish = {})
      : inquiry(std::move(inquiryWish)) {
    const Wire::Directory directory = oneExport();
    ServerHandshake server(directory, {}, peer);
    wish.dialogue = &inquiry;
    client.emplace(wish);
    Buffer toClient;
    server.greet(toClient);
    Buffer toServer;
    for (bool moved = true; moved;) {
      moved = step(*client, toClient, toServer, clientState);
      moved = step(server, toServer, toClient, serverState) || moved;
    }
  }

  template <class Handshake>
  static bool step(Handshake& handshake, Buffer& input, Buffer& output, typename Handshake::State& state) {
    if (state != Handshake::State::negotiating) return false;
    const std::size_t before = output.size();
    const auto progress = handshake.advance(input, output);
    input.erase(input.begin(), input.begin() + static_cast<std::ptrdiff_t>(progress.consumed));
    state = progress.state;
    bool waiting = false;
    if constexpr (requires { progress.waiting; }) waiting = progress.waiting;
    return waiting || progress.consumed != 0 || output.size() != before;
  }

  Inquiry inquiry;
  std::optional<ClientHandshake> client;
  ClientHandshake::State clientState{};
  ServerHandshake::State serverState{};
};

const Inquiry::Wish everything{.self = {.product = "test"},
                               .properties = true,
                               .exports = true,
                               .compression = Compression{.blockLength = 65'536},
                               .nothingElse = true};

TEST(ExtensionInquiry, LearnsEverythingAndLeaves) {
  for (const int pauses : {0, 1}) {
    Wire::ExtensionPeer peer;
    peer.properties = tree;
    peer.exports = twoExports;
    peer.pauses = pauses;
    const Both both(&peer, everything, {.goal = ClientHandshake::Goal::details});
    EXPECT_EQ(both.clientState, ClientHandshake::State::finished);
    EXPECT_EQ(both.serverState, ServerHandshake::State::closing);
    const Inquiry::Findings& findings = both.inquiry.findings();
    EXPECT_EQ(findings.server, peer.self);
    EXPECT_EQ(findings.version, 1);
    EXPECT_EQ(findings.properties, tree);
    EXPECT_EQ(findings.exports, twoExports);
    EXPECT_EQ(findings.exportsRefused, std::nullopt);
    EXPECT_EQ(findings.compression, everything.compression);
  }
}

TEST(ExtensionInquiry, GoesOnWithTheExport) {
  Wire::ExtensionPeer peer;
  const Both both(&peer, {.compression = Compression{.blockLength = 4096}}, {.exportName = "disk"});
  EXPECT_EQ(both.clientState, ClientHandshake::State::transmission);
  EXPECT_EQ(both.client->agreement().remote.size, 4096U);
  EXPECT_TRUE(both.inquiry.findings().compression);
}

TEST(ExtensionInquiry, AServerOfAnotherKindIsAskedTheUsualWay) {
  const Both both(nullptr, everything, {.goal = ClientHandshake::Goal::details});
  EXPECT_EQ(both.clientState, ClientHandshake::State::finished);
  EXPECT_EQ(both.inquiry.findings().server, std::nullopt);
  ASSERT_EQ(both.client->exports().size(), 1U);
  EXPECT_EQ(both.client->exports().front().size, 4096U);
}

TEST(ExtensionInquiry, AServerOfALaterVersionIsAskedTheUsualWay) {
  Wire::ExtensionPeer peer;
  peer.self.minimumVersion = 2;
  peer.self.maximumVersion = 3;
  const Both both(&peer, everything, {.goal = ClientHandshake::Goal::details});
  EXPECT_EQ(both.clientState, ClientHandshake::State::finished);
  EXPECT_EQ(both.inquiry.findings().server, peer.self);
  EXPECT_EQ(both.inquiry.findings().version, std::nullopt);
  EXPECT_EQ(peer.asked.size(), 1U);
  EXPECT_EQ(both.client->exports().size(), 1U);
}

TEST(ExtensionInquiry, AnExpressionTakesThePlaceOfTheListing) {
  Wire::ExtensionPeer peer;
  peer.exports = twoExports;
  Inquiry::Wish wish = everything;
  wish.expression = text("size > 1");
  const Both both(&peer, wish);
  EXPECT_EQ(both.inquiry.findings().exports, twoExports);
  ASSERT_EQ(peer.asked.size(), 4U);
  EXPECT_EQ(peer.asked[2].kind, Kind::evaluate);
  EXPECT_EQ(peer.asked[2].body, text("size > 1"));
}

TEST(ExtensionInquiry, RemembersWhatWasRefused) {
  Wire::ExtensionPeer peer;
  peer.refusal = Refusal{.type = ReplyType::invalid, .text = "no such field"};
  const Both both(&peer, everything);
  EXPECT_EQ(both.clientState, ClientHandshake::State::finished);
  EXPECT_EQ(both.inquiry.findings().exportsRefused, peer.refusal);
  EXPECT_EQ(both.inquiry.findings().compression, std::nullopt);
}

TEST(ExtensionInquiry, AsksForCompressionOnlyWhereThereIsSome) {
  Wire::ExtensionPeer peer;
  peer.self.capabilities = 0;
  const Both both(&peer, {.compression = Compression{.blockLength = 4096}}, {.exportName = "disk"});
  EXPECT_EQ(both.clientState, ClientHandshake::State::transmission);
  EXPECT_EQ(peer.asked.size(), 1U);
}

// --- Servers that break the protocol

/// What a server says to an inquiry for everything.
struct Lied {
  explicit Lied(std::vector<Buffer> answers) : inquiry(everything) {
    Buffer words = join({text("NBDMAGICIHAVEOPT"), number(std::uint16_t{3})});
    for (const Buffer& answer : answers) words.insert(words.end(), answer.begin(), answer.end());
    handshake.emplace(ClientHandshake::Wish{.goal = ClientHandshake::Goal::details, .dialogue = &inquiry});
    state = Wire::converse(*handshake, words).state;
  }
  Inquiry inquiry;
  std::optional<ClientHandshake> handshake;
  ClientHandshake::State state{};
};

Buffer message(std::uint16_t version, Kind kind, const Buffer& body) {
  return Wire::reply(Option::extension, ReplyType::extension, join({number(version), number(kind), body}));
}

const Buffer acknowledged = Wire::reply(Option::extension, ReplyType::ack);

TEST(ExtensionInquiry, ALiarEndsTheHandshake) {
  const Buffer good = message(0, Kind::hello, encodeHello({.capabilities = 1, .product = "x"}));
  const Buffer noMore = acknowledged;
  const std::vector<std::vector<Buffer>> lies = {
      {acknowledged},                                                       // a hello without a word
      {good, good},                                                         // two
      {message(1, Kind::hello, encodeHello({}))},                           // of a wrong version
      {message(0, Kind::exports, encodeHello({}))},                         // of a wrong kind
      {message(0, Kind::hello, text("garbage"))},                           //
      {Wire::reply(Option::extension, ReplyType::extension, text("abc"))},  // no header
      {good, noMore, message(1, Kind::properties, text("garbage"))},        //
      {good, noMore, noMore, message(1, Kind::exports, text("garbage"))},   //
      {good, noMore, noMore, message(2, Kind::exports, {})},                //
      {good, noMore, noMore, noMore, noMore},                               // agreed on compression, unsaid
      {good, noMore, noMore, noMore,                                        // on larger blocks
       message(1, Kind::compression, encodeCompression({.blockLength = 65'537}))},
      {good, noMore, noMore, noMore, message(1, Kind::compression, encodeCompression({.blockLength = 0}))},
  };
  for (std::size_t index = 0; index < lies.size(); ++index) {
    const Lied lied(lies[index]);
    EXPECT_EQ(lied.state, ClientHandshake::State::failed) << index;
    EXPECT_FALSE(lied.handshake->failure().isRefusal) << index;
  }
}

TEST(ExtensionInquiry, ForgetsWhatCameBeforeARefusal) {
  const Buffer good = message(0, Kind::hello, encodeHello({.product = "x"}));
  Buffer body;
  ASSERT_TRUE(appendExport(body, twoExports.front()));
  const Lied lied({good, acknowledged, acknowledged, message(1, Kind::exports, body),
                   Wire::reply(Option::extension, ReplyType::shutdown)});
  EXPECT_TRUE(lied.inquiry.findings().exports.empty());
  EXPECT_EQ(lied.inquiry.findings().exportsRefused, (Refusal{.type = ReplyType::shutdown}));
}

// --- Any bytes

RC_GTEST_PROP(ExtensionProperty, WhatIsDecodedEncodesToTheSame, (const std::string& noise)) {
  const Buffer bytes = text(noise);
  std::vector<ExportEntry> entries;
  if (readExports(bytes, entries)) {
    Buffer again;
    for (const ExportEntry& entry : entries) RC_ASSERT(appendExport(again, entry));
    RC_ASSERT(again == bytes);
  }
  if (const auto compression = decodeCompression(bytes)) RC_ASSERT(encodeCompression(*compression) == bytes);
}

RC_GTEST_PROP(ExtensionProperty, ExportsSurviveTheWire, (const std::vector<std::uint64_t>& sizes)) {
  Wire::ExtensionPeer peer;
  for (const std::uint64_t size : sizes) {
    peer.exports.push_back({.uuid = {static_cast<std::byte>(size)},
                            .size = size,
                            .flags = static_cast<std::uint32_t>(size & 0xffff),
                            .name = std::string(size % 4096, 'x')});
  }
  const Both both(&peer, everything);
  RC_ASSERT(both.inquiry.findings().exports == peer.exports);
}

}  // namespace
