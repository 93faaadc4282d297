#include "nbdd/server/export_search.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

namespace Nbdd {
namespace {

using Clock = std::chrono::steady_clock;

std::shared_ptr<const Publication> publication(std::uint32_t id, std::string name, std::uint64_t size,
                                               bool readOnly = false) {
  OpenNode node;
  node.size = size;
  node.readOnly = readOnly;
  return std::make_shared<const Publication>(
      Publication{.id = Control::ExportId{id},
                  .name = std::move(name),
                  .description = {},
                  .uuid = "c0ffee00-0000-4000-8000-00000000000" + std::to_string(id),
                  .storage = std::make_shared<Storage>(std::move(node)),
                  .counters = std::make_shared<TransferCounters>()});
}

std::size_t twoOfTheSecond(Control::ExportId id) { return id == Control::ExportId{2} ? 2 : 0; }

/// The names of what an expression selects of three exports, one blank behind each.
std::string selected(std::string_view text, Clock::time_point deadline = Clock::time_point::max()) {
  const auto expression = DiskSpec::compile(text);
  EXPECT_TRUE(expression.has_value()) << text;
  const auto found = selectExports(
      *expression, {publication(1, "a", 4096), publication(2, "b", 1 << 20, true), publication(3, "c", 1001)},
      twoOfTheSecond, deadline);
  if (!found) return "too late";
  std::string names;
  for (const auto& one : *found) names += one->name + " ";
  return names;
}

TEST(ExportSearch, SelectsByWhatTheExportsAre) {
  EXPECT_EQ(selected("true"), "a b c ");
  EXPECT_EQ(selected("false"), "");
  EXPECT_EQ(selected("name in [c, a]"), "a c ");
  EXPECT_EQ(selected("size >= 4K"), "a b ");
  EXPECT_EQ(selected("readonly"), "b ");
  EXPECT_EQ(selected("clients > 0"), "b ");
  EXPECT_EQ(selected("id == 3"), "c ");
  EXPECT_EQ(selected("uuid ~ *3"), "c ");
  EXPECT_EQ(selected("state == enabled and age < 1d"), "a b c ");
  EXPECT_EQ(selected("blocksize == 1"), "c ") << "its size is no number of sectors";
  EXPECT_EQ(selected("compressed or bytesread > 0 or byteswritten > 0"), "");
}

TEST(ExportSearch, KnowsWhatClientsHaveTransferred) {
  const auto subject = publication(1, "a", 4096);
  subject->counters->addReceived({.transfers = 1, .bytes = 512, .bytesTransferred = 512});
  subject->counters->addSent({.transfers = 2, .bytes = 1024, .bytesTransferred = 1024});
  const auto facts = factsOf(*subject, 0, subject->counters->began() + std::chrono::minutes(2));
  EXPECT_EQ(facts.byteswritten, 512U);
  EXPECT_EQ(facts.bytesread, 1024U);
  EXPECT_EQ(facts.age, 120U);
  EXPECT_FALSE(facts.compressed);
  subject->counters->addSent({.transfers = 1, .bytes = 512, .bytesTransferred = 100, .compressed = 1});
  EXPECT_TRUE(factsOf(*subject, 0, {}).compressed);
}

TEST(ExportSearch, KnowsThatTheStorageFailed) {
  const auto subject = publication(1, "a", 4096);
  EXPECT_EQ(DiskSpec::stateWords()[factsOf(*subject, 0, {}).state], "enabled");
  subject->storage->fail();
  EXPECT_EQ(DiskSpec::stateWords()[factsOf(*subject, 0, {}).state], "failed");
}

TEST(ExportSearch, GivesUpAtTheDeadline) { EXPECT_EQ(selected("true", Clock::now()), "too late"); }

/// What a client is told that sent `octets`: names, or the kind and the text of the refusal.
std::string answerTo(std::string_view octets) {
  std::vector<std::byte> bytes;
  for (const char octet : octets) bytes.push_back(static_cast<std::byte>(octet));
  const auto found =
      searchExports(bytes, {publication(1, "a", 4096), publication(2, "b", 512)}, twoOfTheSecond);
  if (!found)
    return (found.error().type == Nbd::ReplyType::invalid ? "invalid: " : "other: ") + found.error().text;
  std::string names;
  for (const auto& one : *found) names += one->name + " ";
  return names;
}

TEST(ExportSearch, ChecksWhatAClientSends) {
  EXPECT_EQ(answerTo("\1size > 512"), "a ");
  EXPECT_EQ(answerTo("\1false"), "");
  EXPECT_EQ(answerTo("\1colour"), "invalid: There is no such field. (DiskSpec error 12)");
  EXPECT_EQ(answerTo("\2true").substr(0, 9), "invalid: ");
}

}  // namespace
}  // namespace Nbdd
