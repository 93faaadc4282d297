// What docs/diskspec.md promises is what the tables hold.

#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include "diskspec/error.h"
#include "diskspec/fields.h"

namespace DiskSpec {
namespace {

/// The rows of a file that `pattern` matches, each as its groups.
std::vector<std::vector<std::string>> rows(const char* file, const char* pattern) {
  std::ifstream page(std::string(TALVEK_SOURCE_DIRECTORY) + file);
  EXPECT_TRUE(page.is_open());
  const std::regex row(pattern);
  std::vector<std::vector<std::string>> found;
  for (std::string line; std::getline(page, line);) {
    std::smatch match;
    if (std::regex_match(line, match, row)) found.emplace_back(std::next(match.begin()), match.end());
  }
  return found;
}

std::string_view wordOf(Kind kind) {
  switch (kind) {
    case Kind::text:
      return "text";
    case Kind::uuid:
      return "text, letter case aside";
    case Kind::size:
      return "size";
    case Kind::number:
      return "number";
    case Kind::duration:
      return "duration";
    case Kind::truth:
      return "truth value";
    case Kind::state:
      return "state";
  }
  return {};
}

TEST(DiskSpecTables, TheErrorsAreDocumented) {
  const auto documented = rows("/docs/diskspec.md", R"(\| (\d+) \| (\w+) \| (.+) \|)");
  const auto table = errorTable();
  ASSERT_EQ(documented.size(), table.size());
  for (std::size_t index = 0; index < table.size(); ++index) {
    EXPECT_EQ(documented[index][0], std::to_string(static_cast<unsigned>(table[index].number)));
    EXPECT_EQ(documented[index][1], table[index].name);
    EXPECT_EQ(documented[index][2], table[index].sentence);
  }
}

TEST(DiskSpecTables, TheErrorsAreInTheManualPage) {
  const auto documented = rows("/docs/man/nbdctl.1", R"(\.It (\d+) Ta (.+))");
  ASSERT_EQ(documented.size(), errorTable().size());
  for (std::size_t index = 0; index < documented.size(); ++index) {
    const ErrorDescription& row = errorTable()[index];
    EXPECT_EQ(documented[index][0], std::to_string(static_cast<unsigned>(row.number)));
    // Words that mdoc(7) would take for a macro or a delimiter do not come out as they stand.
    EXPECT_FALSE(std::regex_search(documented[index][1], std::regex(R"((^| )([A-Z][a-z]|[)\]])( |$))")))
        << documented[index][1];
    const std::string plain = std::regex_replace(documented[index][1], std::regex(R"(\\&)"), "");
    EXPECT_EQ(std::regex_replace(plain, std::regex(R"(\\\(ha)"), "^"),
              std::regex_replace(std::string(row.sentence), std::regex("`"), ""));
  }
}

TEST(DiskSpecTables, EveryErrorHasItsRow) {
  std::ifstream header(TALVEK_SOURCE_DIRECTORY "/diskspec/error.h");
  const std::regex enumerator(R"(  (\w+) = (\d+),)");
  std::size_t count = 0;
  for (std::string line; std::getline(header, line);) {
    std::smatch match;
    if (!std::regex_match(line, match, enumerator)) continue;
    ASSERT_LT(count, errorTable().size());
    EXPECT_EQ(errorTable()[count].name, match[1].str());
    EXPECT_EQ(static_cast<int>(errorTable()[count].number), std::stoi(match[2]));
    EXPECT_FALSE(sentenceOf(errorTable()[count].number).empty());
    ++count;
  }
  EXPECT_EQ(count, errorTable().size());
}

TEST(DiskSpecTables, TheFieldsAreDocumented) {
  const auto documented = rows("/docs/diskspec.md", R"(\| `(\w+)` \| ([^|]+) \| (.+) \|)");
  const auto table = fieldTable();
  ASSERT_EQ(documented.size(), table.size());
  for (std::size_t index = 0; index < table.size(); ++index) {
    EXPECT_EQ(documented[index][0], table[index].name);
    EXPECT_EQ(documented[index][1], wordOf(table[index].kind));
    EXPECT_EQ(documented[index][2], table[index].meaning);
    EXPECT_EQ(describe(table[index].field), &table[index]);
  }
}

// The numbers are a promise to those who look them up.
TEST(DiskSpecTables, NumbersStay) {
  EXPECT_EQ(static_cast<int>(ErrorNumber::empty), 1);
  EXPECT_EQ(static_cast<int>(ErrorNumber::badCharacter), 3);
  EXPECT_EQ(static_cast<int>(ErrorNumber::unknownField), 12);
  EXPECT_EQ(static_cast<int>(ErrorNumber::unknownEncoding), 26);
}

}  // namespace
}  // namespace DiskSpec
