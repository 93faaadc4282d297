#include "nbdd/imports/nbd_netlink.h"

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <bit>
#include <cerrno>
#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

namespace Nbdd::NbdNetlink {
namespace {

static_assert(std::endian::native == std::endian::little, "the bytes below are those of such a machine");

constexpr int family = 0x1c;
constexpr std::uint32_t sequence = 0x01020304;

using Bytes = std::vector<std::byte>;

Bytes bytes(std::initializer_list<int> values) {
  Bytes result;
  for (const int value : values) result.push_back(static_cast<std::byte>(value));
  return result;
}

Bytes operator+(Bytes left, const Bytes& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

/// What follows the netlink header, which the socket fills in.
Bytes bodyOf(const Message& message) {
  const nlmsghdr* const header = nlmsg_hdr(message.get());
  const auto* const begin = reinterpret_cast<const std::byte*>(header);
  return {begin + NLMSG_HDRLEN, begin + header->nlmsg_len};
}

/// A message from the kernel.
Bytes message(int type, const Bytes& body, std::uint32_t number = sequence) {
  nlmsghdr header{};
  header.nlmsg_len = static_cast<std::uint32_t>(sizeof header + body.size());
  header.nlmsg_type = static_cast<std::uint16_t>(type);
  header.nlmsg_seq = number;
  Bytes result(sizeof header);
  std::memcpy(result.data(), &header, sizeof header);
  return result + body;
}

/// An acknowledgement, or a failure: the outcome, and the header of the question.
Bytes outcome(int error) {
  Bytes body(sizeof(nlmsgerr));
  std::memcpy(body.data(), &error, sizeof error);
  return message(NLMSG_ERROR, body);
}

const Bytes connectHeader = bytes({1, 1, 0, 0});
const Bytes indexFive = bytes({8, 0, 1, 0, 5, 0, 0, 0});

TEST(NbdNetlink, ConnectSaysAllThatTheDeviceIsToBe) {
  const Settings settings{.size = 0x0102030405060000,
                          .blockSize = 512,
                          .transmissionFlags = 0x6d,
                          .deadConnection = std::chrono::seconds(120),
                          .identifier = "me/1"};
  const Message told = connect(family, settings, 7);
  EXPECT_EQ(nlmsg_hdr(told.get())->nlmsg_type, family);
  EXPECT_EQ(nlmsg_hdr(told.get())->nlmsg_flags, NLM_F_REQUEST | NLM_F_ACK);
  const Bytes expected = bytes({1, 1, 0, 0})                                      // CONNECT, version 1
                         + bytes({12, 0, 2, 0, 0, 0, 6, 5, 4, 3, 2, 1})           // SIZE_BYTES
                         + bytes({12, 0, 3, 0, 0, 2, 0, 0, 0, 0, 0, 0})           // BLOCK_SIZE_BYTES
                         + bytes({12, 0, 5, 0, 0x6d, 0, 0, 0, 0, 0, 0, 0})        // SERVER_FLAGS
                         + bytes({12, 0, 4, 0, 0, 0, 0, 0, 0, 0, 0, 0})           // TIMEOUT
                         + bytes({12, 0, 8, 0, 120, 0, 0, 0, 0, 0, 0, 0})         // DEAD_CONN_TIMEOUT
                         + bytes({9, 0, 10, 0, 'm', 'e', '/', '1', 0, 0, 0, 0});  // BACKEND_IDENTIFIER
  // SOCKETS { SOCK_ITEM { SOCK_FD } }; whether nests are marked as such is the library's choice.
  Bytes body = bodyOf(told);
  ASSERT_EQ(body.size(), expected.size() + 16);
  EXPECT_EQ(Bytes(body.begin(), body.end() - 16), expected);
  Bytes sockets(body.end() - 16, body.end());
  sockets[3] &= ~std::byte{0x80};
  sockets[7] &= ~std::byte{0x80};
  EXPECT_EQ(sockets, bytes({16, 0, 7, 0, 12, 0, 1, 0, 8, 0, 1, 0, 7, 0, 0, 0}));
}

TEST(NbdNetlink, ReconfigureNamesTheDeviceAndItsIdentifier) {
  Bytes body = bodyOf(reconfigure(family, 3, "me/1", 9));
  const Bytes expected = bytes({3, 1, 0, 0}) + bytes({8, 0, 1, 0, 3, 0, 0, 0}) +
                         bytes({9, 0, 10, 0, 'm', 'e', '/', '1', 0, 0, 0, 0});
  ASSERT_EQ(body.size(), expected.size() + 16);
  EXPECT_EQ(Bytes(body.begin(), body.end() - 16), expected);
  EXPECT_EQ(body[body.size() - 4], std::byte{9});
}

TEST(NbdNetlink, DisconnectNamesTheDevice) {
  EXPECT_EQ(bodyOf(disconnect(family, 300)), bytes({2, 1, 0, 0, 8, 0, 1, 0, 44, 1, 0, 0}));
}

TEST(NbdNetlink, TheIndexAndTheAcknowledgementMayComeTogetherOrApart) {
  const Bytes index = message(family, connectHeader + indexFive);
  Answer together;
  ASSERT_TRUE(readAnswer(index + outcome(0), family, sequence, together));
  EXPECT_EQ(together.index, 5U);
  EXPECT_EQ(together.outcome, 0);

  Answer apart;
  ASSERT_TRUE(readAnswer(index, family, sequence, apart));
  EXPECT_FALSE(apart.outcome);
  ASSERT_TRUE(readAnswer(outcome(0), family, sequence, apart));
  EXPECT_EQ(apart.index, 5U);
  EXPECT_EQ(apart.outcome, 0);
}

TEST(NbdNetlink, AFailureIsAnErrno) {
  Answer answer;
  ASSERT_TRUE(readAnswer(outcome(-EBUSY), family, sequence, answer));
  EXPECT_EQ(answer.outcome, EBUSY);
  EXPECT_FALSE(answer.index);
}

TEST(NbdNetlink, AnswersToOtherQuestionsArePassedOver) {
  Answer answer;
  ASSERT_TRUE(readAnswer(message(family, connectHeader + indexFive, sequence + 1) + message(17, indexFive),
                         family, sequence, answer));
  EXPECT_FALSE(answer.index);
  EXPECT_FALSE(answer.outcome);
}

TEST(NbdNetlink, UnknownAttributesArePassedOver) {
  Answer answer;
  const Bytes unknown = bytes({5, 0, 99, 0, 1, 0, 0, 0});
  ASSERT_TRUE(readAnswer(message(family, connectHeader + unknown + indexFive), family, sequence, answer));
  EXPECT_EQ(answer.index, 5U);
}

TEST(NbdNetlink, OddAnswersAreRefusedInWords) {
  const std::vector<std::pair<const char*, Bytes>> odd{
      {"a header that is cut short", bytes({16, 0, 0, 0})},
      {"a message longer than the datagram", bytes({64, 0, 0, 0, 0x1c, 0, 0, 0, 4, 3, 2, 1, 0, 0, 0, 0})},
      {"a message shorter than its header", bytes({8, 0, 0, 0, 0x1c, 0, 0, 0, 4, 3, 2, 1, 0, 0, 0, 0})},
      {"no header of the family", message(family, bytes({1, 1}))},
      {"another command's answer", message(family, bytes({5, 1, 0, 0}) + indexFive)},
      {"no index", message(family, connectHeader)},
      {"an index of two bytes", message(family, connectHeader + bytes({6, 0, 1, 0, 5, 0, 0, 0}))},
      {"an index of eight bytes",
       message(family, connectHeader + bytes({12, 0, 1, 0, 5, 0, 0, 0, 0, 0, 0, 0}))},
      {"two indices", message(family, connectHeader + indexFive + indexFive)},
      {"an attribute longer than the message",
       message(family, connectHeader + bytes({40, 0, 1, 0, 5, 0, 0, 0}))},
      {"an attribute without a length", message(family, connectHeader + bytes({0, 0, 1, 0, 5, 0, 0, 0}))},
      {"an outcome that is cut short", message(NLMSG_ERROR, bytes({0, 0, 0, 0}))},
      {"an outcome that is no error", outcome(5)},
      {"an outcome that is no errno", outcome(-5000)},
  };
  for (const auto& [what, datagram] : odd) {
    Answer answer;
    const auto read = readAnswer(datagram, family, sequence, answer);
    EXPECT_TRUE(!read && !read.error().empty()) << what;
  }
}

RC_GTEST_PROP(NbdNetlink, NoBytesAreReadThatAreNotThere, (const std::vector<std::uint8_t>& noise)) {
  // Under the address sanitizer, on an allocation of exactly this size, behind something that is understood.
  Bytes datagram = message(family, connectHeader + indexFive);
  for (const std::uint8_t each : noise) datagram.push_back(static_cast<std::byte>(each));
  datagram.shrink_to_fit();
  Answer answer;
  const auto read = readAnswer(datagram, family, sequence, answer);
  RC_ASSERT(read.has_value() || !read.error().empty());
  RC_ASSERT(answer.index == 5U || noise.size() >= 16);
}

}  // namespace
}  // namespace Nbdd::NbdNetlink
