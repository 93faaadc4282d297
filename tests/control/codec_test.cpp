#include "control/codec.h"

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include "tests/control/fake_service.h"

namespace Control {
namespace {

namespace Samples = Testing::Samples;

template <class T>
std::string encoded(const T& value) {
  JsonWriter writer;
  encode(writer, value);
  EXPECT_FALSE(writer.isDistorted());
  return writer.take();
}

/// `text` as a T; nothing if it does not fit.
template <class T>
std::optional<T> decoded(const std::string& text) {
  const auto document = JsonDocument::parse(text);
  if (!document) return std::nullopt;
  T value{};
  Complaint complaint;
  return decode(document->root(), value, complaint) ? std::optional(value) : std::nullopt;
}

// The exact texts: other people's clients read them.

TEST(CodecTest, RecordsAreWrittenAsDefined) {
  EXPECT_EQ(encoded(Samples::exportInfo),
            R"({"id":4294967295,"descriptor":{"name":"disk.img","node":"/srv/disk.img","flags":["readOnly"],)"
            R"("elemCount":18446744073709551615,"elemSize":512},"state":"failed","reason":"accessError",)"
            R"("uuid":"0fc63daf-8483-4772-8e79-3d69d8477de4"})");
  EXPECT_EQ(encoded(ExportDescriptor{.node = "/"}), R"({"node":"/","flags":[],"elemCount":0,"elemSize":0})");
  EXPECT_EQ(encoded(Endpoint{"::1", 10809}), R"({"address":"::1","port":10809})");
  EXPECT_EQ(encoded(Flags{ImportFlag::forceReadOnly, ImportFlag::dontAnnounceStorage}),
            R"(["dontAnnounceStorage","forceReadOnly"])");
}

TEST(CodecTest, VariantsAreWrittenAsDefined) {
  EXPECT_EQ(encoded(Variant{{"e", {}},
                            {"n", std::uint64_t{5}},
                            {"t", std::string("x")},
                            {"b", Binary{"foo"}},
                            {"v", Variant{{"in", {}}}}}),
            R"([{"name":"e"},{"name":"n","number":5},{"name":"t","text":"x"},{"name":"b","binary":"Zm9v"},)"
            R"({"name":"v","nested":[{"name":"in"}]}])");
}

TEST(CodecTest, WhatHasNoWordIsNotSent) {
  JsonWriter flags;
  encode(flags, Flags<ExportFlag>::fromMask(0x3));
  EXPECT_TRUE(flags.isDistorted());
  JsonWriter state;
  encode(state, static_cast<ExportState>(9));
  EXPECT_TRUE(state.isDistorted());
}

TEST(CodecTest, SamplesComeBackAsTheyWere) {
  const auto expectSame = [](const auto& sample) {
    EXPECT_TRUE(decoded<std::remove_cvref_t<decltype(sample)>>(encoded(sample)) == sample);
  };
  expectSame(Samples::exportInfo);
  expectSame(Samples::exportClients);
  expectSame(Samples::exportStatistics);
  expectSame(Samples::importInfo);
  expectSame(Samples::firewallStates);
  expectSame(Samples::remoteServers);
  expectSame(Samples::remoteExports);
  expectSame(Samples::reservationRequest);
  expectSame(Samples::remoteReservations);
  expectSame(Samples::localReservation);
}

TEST(CodecTest, EveryWordIsReadBack) {
  const auto expectWords = []<class Enumeration>(Enumeration) {
    for (const auto& word : Words<Enumeration>::list) {
      EXPECT_EQ(decoded<Enumeration>('"' + std::string(word.text) + '"'), word.value);
      EXPECT_EQ(encoded(word.value), '"' + std::string(word.text) + '"');
    }
    EXPECT_EQ(decoded<Enumeration>("\"\""), std::nullopt);
    EXPECT_EQ(decoded<Enumeration>("1"), std::nullopt);
  };
  expectWords(ExportState{});
  expectWords(ExportReason{});
  expectWords(ImportState{});
  expectWords(ImportDisableReason{});
  expectWords(ExportFlag{});
  expectWords(ImportFlag{});
  expectWords(ServerCapability{});
}

TEST(CodecTest, NumbersMustFit) {
  EXPECT_EQ(decoded<std::uint16_t>("65535"), 65535);
  EXPECT_EQ(decoded<std::uint16_t>("65536"), std::nullopt);
  EXPECT_EQ(decoded<std::uint32_t>("4294967296"), std::nullopt);
  EXPECT_EQ(decoded<std::uint64_t>("18446744073709551615"), 18446744073709551615U);
  EXPECT_EQ(decoded<std::uint64_t>("18446744073709551616"), std::nullopt);
  EXPECT_EQ(decoded<std::uint64_t>("-0"), std::nullopt);
}

// Any variant, a few levels deep.
rc::Gen<Variant> variants(int depth) {
  return rc::gen::exec([depth] {
    Variant variant;
    const int count = *rc::gen::inRange(0, 4);
    for (int index = 0; index < count; ++index) {
      VariantEntry entry{.name = *rc::gen::container<std::string>(rc::gen::inRange<char>(0, 127)),
                         .value = {}};
      switch (*rc::gen::inRange(0, depth > 0 ? 5 : 4)) {
        case 1:
          entry.value = *rc::gen::arbitrary<std::uint64_t>();
          break;
        case 2:
          entry.value = *rc::gen::container<std::string>(rc::gen::inRange<char>(0, 127));
          break;
        case 3:
          entry.value = Binary{*rc::gen::arbitrary<std::string>()};
          break;
        case 4:
          entry.value = *variants(depth - 1);
          break;
        default:
          break;
      }
      variant.push_back(std::move(entry));
    }
    return variant;
  });
}

RC_GTEST_PROP(CodecProperty, VariantsComeBackAsTheyWere, ()) {
  const Variant variant = *variants(4);
  RC_ASSERT(decoded<Variant>(encoded(variant)) == variant);
}

RC_GTEST_PROP(CodecProperty, ExportsComeBackAsTheyWere, ()) {
  const ExportInfo info{
      .id = ExportId{*rc::gen::arbitrary<std::uint32_t>()},
      .descriptor = {.name = *rc::gen::element<std::optional<std::string>>(std::nullopt, "", "name"),
                     .node = *rc::gen::container<std::string>(rc::gen::inRange<char>(0, 127)),
                     .flags = Flags<ExportFlag>::fromMask(*rc::gen::inRange<std::uint32_t>(0, 2)),
                     .elemCount = *rc::gen::arbitrary<std::uint64_t>(),
                     .elemSize = *rc::gen::arbitrary<std::uint64_t>()},
      .state = static_cast<ExportState>(*rc::gen::inRange(1, 6)),
      .reason = *rc::gen::element<std::optional<ExportReason>>(std::nullopt, ExportReason::none,
                                                               ExportReason::accessError),
      .uuid = *rc::gen::container<std::string>(rc::gen::inRange<char>(32, 127))};
  RC_ASSERT(decoded<ExportInfo>(encoded(info)) == info);
}

}  // namespace
}  // namespace Control
