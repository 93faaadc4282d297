#include "nbd/validation.h"

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <limits>

#include "tests/support/validation_model.h"

namespace {

using Nbd::Command;
using Nbd::Error;
using Nbd::ExportLimits;
using Nbd::HeaderStyle;
using Nbd::Request;
namespace CommandFlag = Nbd::CommandFlag;
namespace TransmissionFlag = Nbd::TransmissionFlag;

constexpr std::uint16_t everyFlag =
    TransmissionFlag::hasFlags | TransmissionFlag::sendFlush | TransmissionFlag::sendFua |
    TransmissionFlag::sendTrim | TransmissionFlag::sendWriteZeroes | TransmissionFlag::sendDf |
    TransmissionFlag::canMultiConn | TransmissionFlag::sendCache | TransmissionFlag::sendFastZero;

constexpr std::uint64_t mebibyte = 1024 * 1024;

constexpr ExportLimits full{.size = 64 * mebibyte,
                            .transmissionFlags = everyFlag,
                            .headers = HeaderStyle::structured,
                            .blockStatus = true};
constexpr ExportLimits readOnly{.size = 64 * mebibyte,
                                .transmissionFlags = everyFlag | TransmissionFlag::readOnly,
                                .headers = HeaderStyle::structured,
                                .blockStatus = true};
constexpr ExportLimits bare{.size = 64 * mebibyte, .transmissionFlags = TransmissionFlag::hasFlags};
constexpr ExportLimits blocks{.size = 64 * mebibyte, .transmissionFlags = everyFlag, .minimumBlock = 4096};
constexpr ExportLimits portable{
    .size = 64 * mebibyte, .transmissionFlags = everyFlag, .maximumUnfragmented = 65'536};

constexpr ExportLimits extended{.size = std::uint64_t{8} << 40,
                                .transmissionFlags = everyFlag | TransmissionFlag::blockStatusPayload,
                                .headers = HeaderStyle::extended,
                                .blockStatus = true};
constexpr ExportLimits extendedReadOnly{.size = 64 * mebibyte,
                                        .transmissionFlags = everyFlag | TransmissionFlag::readOnly,
                                        .headers = HeaderStyle::extended,
                                        .blockStatus = true};
constexpr ExportLimits extendedBare{
    .size = 64 * mebibyte, .transmissionFlags = everyFlag, .headers = HeaderStyle::extended};
constexpr std::uint16_t withPayload = CommandFlag::payloadLength;

constexpr auto ok = std::optional<Error>();
constexpr auto unknownCommand = static_cast<Command>(8);
constexpr std::uint64_t top = std::numeric_limits<std::uint64_t>::max();

struct Case {
  const char* name;
  Command type;
  std::uint16_t flags;
  std::uint64_t offset;
  std::uint64_t length;
  ExportLimits limits;
  std::optional<Error> expected;
};

const Case cases[] = {
    {"Read", Command::read, 0, 0, 4096, full, ok},
    {"ReadToTheEnd", Command::read, 0, 64 * mebibyte - 512, 512, full, ok},
    {"ReadOneByteTooFar", Command::read, 0, 64 * mebibyte - 511, 512, full, Error::inval},
    {"ReadBehindTheEnd", Command::read, 0, 64 * mebibyte + 1, 0, full, Error::inval},
    {"ReadWrappedSum", Command::read, 0, top - 4095, 4096, full, Error::inval},
    {"ReadNothing", Command::read, 0, 0, 0, full, ok},
    {"ReadNothingAtTheEnd", Command::read, 0, 64 * mebibyte, 0, full, ok},
    {"ReadLargest", Command::read, 0, 0, Nbd::maxPayload, full, ok},
    {"ReadTooLarge", Command::read, 0, 0, Nbd::maxPayload + 1, full, Error::overflow},
    {"ReadFua", Command::read, CommandFlag::fua, 0, 512, full, ok},
    {"ReadUnadvertisedFua", Command::read, CommandFlag::fua, 0, 512, bare, Error::inval},
    {"ReadDf", Command::read, CommandFlag::df, 0, 512, full, ok},
    {"ReadUnadvertisedDf", Command::read, CommandFlag::df, 0, 512, bare, Error::inval},
    {"ReadDfAtThePortableLimit", Command::read, CommandFlag::df, 0, 65'536, portable, ok},
    {"ReadDfAboveThePortableLimit", Command::read, CommandFlag::df, 0, 65'537, portable, Error::overflow},
    {"ReadWithoutDfAboveThePortableLimit", Command::read, 0, 0, 65'537, portable, ok},
    {"ReadNoHole", Command::read, CommandFlag::noHole, 0, 512, full, Error::inval},
    {"ReadUnknownFlag", Command::read, 1 << 15, 0, 512, full, Error::inval},
    {"ReadPayloadFlag", Command::read, 1 << 5, 0, 512, full, Error::inval},
    {"ReadMisalignedOffset", Command::read, 0, 512, 4096, blocks, Error::inval},
    {"ReadMisalignedLength", Command::read, 0, 4096, 512, blocks, Error::inval},
    {"ReadAligned", Command::read, 0, 4096, 8192, blocks, ok},
    {"ReadOfReadOnly", Command::read, 0, 0, 4096, readOnly, ok},

    {"Write", Command::write, 0, 0, 4096, full, ok},
    {"WriteFua", Command::write, CommandFlag::fua, 0, 4096, full, ok},
    {"WriteUnadvertisedFua", Command::write, CommandFlag::fua, 0, 4096, bare, Error::inval},
    {"WriteBehindTheEnd", Command::write, 0, 64 * mebibyte, 1, full, Error::nospc},
    {"WriteWrappedSum", Command::write, 0, top, 4096, full, Error::nospc},
    {"WriteNothing", Command::write, 0, 0, 0, full, ok},
    {"WriteTooLarge", Command::write, 0, 0, Nbd::maxPayload + 1, full, Error::inval},
    {"WriteDf", Command::write, CommandFlag::df, 0, 512, full, Error::inval},
    {"WritePayloadFlag", Command::write, 1 << 5, 0, 512, full, Error::inval},
    {"WriteMisaligned", Command::write, 0, 1, 4096, blocks, Error::inval},
    {"WriteReadOnly", Command::write, 0, 0, 4096, readOnly, Error::perm},
    {"WriteNothingReadOnly", Command::write, 0, 0, 0, readOnly, Error::perm},
    {"WriteReadOnlyBehindTheEnd", Command::write, 0, top, 4096, readOnly, Error::perm},

    {"Disconnect", Command::disconnect, 0, 0, 0, full, ok},
    {"DisconnectWithOffsetAndFlags", Command::disconnect, 0xffff, top, 7, bare, ok},

    {"Flush", Command::flush, 0, 0, 0, full, ok},
    {"FlushReadOnly", Command::flush, 0, 0, 0, readOnly, ok},
    {"FlushFua", Command::flush, CommandFlag::fua, 0, 0, full, ok},
    {"FlushUnadvertised", Command::flush, 0, 0, 0, bare, Error::inval},
    {"FlushWithOffset", Command::flush, 0, 512, 0, full, Error::inval},
    {"FlushWithLength", Command::flush, 0, 0, 512, full, Error::inval},
    {"FlushFlag", Command::flush, CommandFlag::noHole, 0, 0, full, Error::inval},

    {"Trim", Command::trim, 0, 0, 32 * mebibyte + 1, full, ok},
    {"TrimFua", Command::trim, CommandFlag::fua, 0, 512, full, ok},
    {"TrimUnadvertised", Command::trim, 0, 0, 512, bare, Error::inval},
    {"TrimBehindTheEnd", Command::trim, 0, 64 * mebibyte, 512, full, Error::inval},
    {"TrimReadOnly", Command::trim, 0, 0, 512, readOnly, Error::perm},
    {"TrimMisaligned", Command::trim, 0, 0, 512, blocks, Error::inval},
    {"TrimNoHole", Command::trim, CommandFlag::noHole, 0, 512, full, Error::inval},

    {"Cache", Command::cache, 0, 0, 64 * mebibyte, full, ok},
    {"CacheReadOnly", Command::cache, 0, 0, 512, readOnly, ok},
    {"CacheUnadvertised", Command::cache, 0, 0, 512, bare, Error::inval},
    {"CacheFlag", Command::cache, CommandFlag::df, 0, 512, full, Error::inval},
    {"CacheBehindTheEnd", Command::cache, 0, 1, 64 * mebibyte, full, Error::inval},

    {"WriteZeroes", Command::writeZeroes, 0, 0, 64 * mebibyte, full, ok},
    {"WriteZeroesNoHole", Command::writeZeroes, CommandFlag::noHole, 0, 512, full, ok},
    {"WriteZeroesFastNoHoleFua", Command::writeZeroes,
     CommandFlag::fastZero | CommandFlag::noHole | CommandFlag::fua, 0, 512, full, ok},
    {"WriteZeroesUnadvertised", Command::writeZeroes, 0, 0, 512, bare, Error::inval},
    {"WriteZeroesUnadvertisedFast",
     Command::writeZeroes,
     CommandFlag::fastZero,
     0,
     512,
     {.size = mebibyte, .transmissionFlags = TransmissionFlag::sendWriteZeroes},
     Error::inval},
    {"WriteZeroesBehindTheEnd", Command::writeZeroes, 0, 512, 64 * mebibyte, full, Error::nospc},
    {"WriteZeroesReadOnly", Command::writeZeroes, 0, 0, 512, readOnly, Error::perm},
    {"WriteZeroesMisaligned", Command::writeZeroes, 0, 0, 1, blocks, Error::inval},
    {"WriteZeroesDf", Command::writeZeroes, CommandFlag::df, 0, 512, full, Error::inval},

    {"BlockStatus", Command::blockStatus, 0, 0, 64 * mebibyte, full, ok},
    {"BlockStatusReqOne", Command::blockStatus, CommandFlag::reqOne, 0, 512, full, ok},
    {"BlockStatusWithoutContext", Command::blockStatus, 0, 0, 512, bare, Error::inval},
    {"BlockStatusOfNothing", Command::blockStatus, 0, 0, 0, full, Error::inval},
    {"BlockStatusBehindTheEnd", Command::blockStatus, 0, 1, 64 * mebibyte, full, Error::inval},
    {"BlockStatusPayloadFlag", Command::blockStatus, 1 << 5, 0, 512, full, Error::inval},

    {"UnknownCommand", unknownCommand, 0, 0, 0, full, Error::inval},
    {"LastUnknownCommand", static_cast<Command>(0xffff), 0, 0, 0, full, Error::inval},

    {"ReadOfAnEmptyExport", Command::read, 0, 0, 1, {.size = 0}, Error::inval},
    {"ExtendedRead", Command::read, 0, 0, 4096, extended, ok},
    {"ExtendedReadWithPayload", Command::read, withPayload, 0, 4096, extended, Error::inval},
    {"ExtendedReadOfEverything", Command::read, 0, 0, extended.size, extended, Error::overflow},
    {"ExtendedReadOfAllThereCouldBe", Command::read, 0, 0, top, extended, Error::overflow},
    {"ExtendedWrite", Command::write, withPayload, 0, 4096, extended, ok},
    {"ExtendedWriteFua", Command::write, withPayload | CommandFlag::fua, 0, 4096, extended, ok},
    {"ExtendedWriteWithoutPayload", Command::write, 0, 0, 4096, extended, Error::inval},
    {"ExtendedWriteOfNothing", Command::write, withPayload, 0, 0, extended, ok},
    {"ExtendedWriteOfNothingWithoutPayload", Command::write, 0, 0, 0, extended, Error::inval},
    {"ExtendedWriteLargest", Command::write, withPayload, 0, Nbd::maxPayload, extended, ok},
    {"ExtendedWriteTooLarge", Command::write, withPayload, 0, Nbd::maxPayload + 1, extended, Error::inval},
    {"ExtendedWriteMuchTooLarge", Command::write, withPayload, 0, top, extended, Error::inval},
    {"ExtendedWriteBehindTheEnd", Command::write, withPayload, extended.size, 1, extended, Error::nospc},
    {"ExtendedWriteReadOnly", Command::write, withPayload, 0, 512, extendedReadOnly, Error::perm},
    {"ExtendedTrimOfEverything", Command::trim, 0, 0, extended.size, extended, ok},
    {"ExtendedTrimBehindTheEnd", Command::trim, 0, 1, extended.size, extended, Error::inval},
    {"ExtendedTrimWrappedSum", Command::trim, 0, top, top, extended, Error::inval},
    {"ExtendedTrimWithPayload", Command::trim, withPayload, 0, 512, extended, Error::inval},
    {"ExtendedWriteZeroesOfEverything", Command::writeZeroes, 0, 0, extended.size, extended, ok},
    {"ExtendedWriteZeroesBehindTheEnd", Command::writeZeroes, 0, 1, extended.size, extended, Error::nospc},
    {"ExtendedWriteZeroesWithPayload", Command::writeZeroes, withPayload, 0, 512, extended, Error::inval},
    {"ExtendedCacheOfEverything", Command::cache, 0, 0, extended.size, extended, ok},
    {"ExtendedFlush", Command::flush, 0, 0, 0, extended, ok},
    {"ExtendedFlushWithPayload", Command::flush, withPayload, 0, 0, extended, Error::inval},
    {"ExtendedDisconnect", Command::disconnect, 0, 0, 0, extended, ok},
    {"ExtendedBlockStatusOfEverything", Command::blockStatus, 0, 0, extended.size, extended, ok},
    {"ExtendedBlockStatusOfOneContext", Command::blockStatus, withPayload, 0, 12, extended, ok},
    {"ExtendedBlockStatusOfOneContextReqOne", Command::blockStatus, withPayload | CommandFlag::reqOne, top,
     12, extended, ok},
    {"ExtendedBlockStatusOfNoContext", Command::blockStatus, withPayload, 0, 8, extended, Error::inval},
    {"ExtendedBlockStatusOfTwoContexts", Command::blockStatus, withPayload, 0, 16, extended, Error::inval},
    {"ExtendedBlockStatusOfHalfAContext", Command::blockStatus, withPayload, 0, 10, extended, Error::inval},
    {"ExtendedBlockStatusUnadvertisedPayload", Command::blockStatus, withPayload, 0, 12, extendedReadOnly,
     Error::inval},
    {"ExtendedBlockStatusWithoutContext", Command::blockStatus, withPayload, 0, 12, extendedBare,
     Error::inval},
    {"ExtendedUnknownCommandWithPayload", unknownCommand, withPayload, 0, 512, extended, Error::inval},

    {"LargestExport", Command::read, 0, top - 512, 512, {.size = top}, ok},
};

class Validation : public testing::TestWithParam<Case> {};

TEST_P(Validation, GivesTheWiresError) {
  const Case& row = GetParam();
  const Request request{
      .flags = row.flags, .type = row.type, .cookie = 1, .offset = row.offset, .length = row.length};
  EXPECT_EQ(Nbd::validate(request, row.limits), row.expected);
}

INSTANTIATE_TEST_SUITE_P(Table, Validation, testing::ValuesIn(cases),
                         [](const auto& row) { return row.param.name; });

TEST(Validation, RefusedDataAreReadPastUpToALimit) {
  EXPECT_TRUE(Nbd::payloadIsDrained({.type = Command::write, .length = Nbd::maxPayloadDrained}, full));
  EXPECT_FALSE(Nbd::payloadIsDrained({.type = Command::write, .length = Nbd::maxPayloadDrained + 1}, full));
  EXPECT_TRUE(Nbd::payloadIsDrained({.type = Command::trim, .length = 0xffff'ffff}, full))
      << "nothing follows";
}

TEST(Validation, ExtendedDataAreReadPastUpToTheLargestPayload) {
  const auto isDrained = [](std::uint16_t flags, Command type, std::uint64_t length) {
    return Nbd::payloadIsDrained({.flags = flags, .type = type, .length = length}, extended);
  };
  for (const Command type : {Command::write, Command::read, Command::blockStatus, unknownCommand}) {
    EXPECT_TRUE(isDrained(withPayload, type, Nbd::maxPayload));
    EXPECT_FALSE(isDrained(withPayload, type, Nbd::maxPayload + 1));
    EXPECT_FALSE(isDrained(withPayload, type, top));
    EXPECT_TRUE(isDrained(0, type, top)) << "nothing follows";
  }
}

// Numbers that lie around the edges more often than anywhere.
rc::Gen<std::uint64_t> near(std::vector<std::uint64_t> edges) {
  return rc::gen::apply(
      [](std::uint64_t edge, int distance) { return edge + static_cast<std::uint64_t>(distance); },
      rc::gen::elementOf(std::move(edges)), rc::gen::inRange(-3, 4));
}

RC_GTEST_PROP(ValidationProperty, AgreesWithTheModel, ()) {
  const auto sizes = rc::gen::oneOf(rc::gen::arbitrary<std::uint64_t>(), near({3, 4096, mebibyte, top - 3}));
  ExportLimits limits{.size = *sizes, .transmissionFlags = *rc::gen::arbitrary<std::uint16_t>()};
  limits.minimumBlock = 1U << *rc::gen::inRange(0, 13);
  limits.maximumPayload = 1U << *rc::gen::inRange(16, 26);
  limits.maximumUnfragmented = *rc::gen::element<std::uint32_t>(65'536, limits.maximumPayload);
  limits.blockStatus = *rc::gen::arbitrary<bool>();
  limits.headers = *rc::gen::element(HeaderStyle::simple, HeaderStyle::structured, HeaderStyle::extended);

  const auto flags = rc::gen::oneOf(rc::gen::just<std::uint16_t>(0), rc::gen::inRange<std::uint16_t>(0, 64),
                                    rc::gen::arbitrary<std::uint16_t>());
  Request request{.flags = *flags};
  request.type = static_cast<Command>(
      *rc::gen::oneOf(rc::gen::inRange<std::uint16_t>(0, 9), rc::gen::arbitrary<std::uint16_t>()));
  const auto length = *rc::gen::oneOf(rc::gen::arbitrary<std::uint64_t>(),
                                      near({3, 12, 4096, 65'536, limits.maximumPayload, limits.size}));
  const bool isExtended = limits.headers == HeaderStyle::extended;
  request.length = isExtended ? length : static_cast<std::uint32_t>(length);
  request.offset = *rc::gen::oneOf(rc::gen::arbitrary<std::uint64_t>(),
                                   near({3, 4096, limits.size, limits.size - request.length, top - 3}));
  if (*rc::gen::arbitrary<bool>()) {
    request.offset &= ~std::uint64_t{limits.minimumBlock - 1};
    request.length &= ~std::uint64_t{limits.minimumBlock - 1};
  }
  RC_ASSERT(Nbd::validate(request, limits) == ValidationModel::verdict(request, limits));
}

}  // namespace
