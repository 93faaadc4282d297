#include "control/failure.h"

#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <set>
#include <string>

namespace Control {
namespace {

// Rows such as "| 0x01 | serviceUnavailable | What happened. | What to do. |".
std::vector<FailureDescription> readRows(const std::vector<std::string>& lines,
                                         std::vector<std::smatch>& matches) {
  static const std::regex row(R"(\| 0x([0-9A-F]{2}) \| (\w+) \| ([^|]+) \| ([^|]+) \|)");
  std::vector<FailureDescription> rows;
  const auto view = [](const std::ssub_match& match) { return std::string_view(match.first, match.second); };
  for (const std::string& line : lines) {
    std::smatch match;
    if (!std::regex_match(line, match, row)) continue;
    matches.push_back(match);
    rows.push_back({.code = static_cast<FailureCode>(std::stoul(match[1], nullptr, 16)),
                    .name = view(match[2]),
                    .meaning = view(match[3]),
                    .remedy = view(match[4])});
  }
  return rows;
}

TEST(FailureTest, TheDocumentHoldsTheTable) {
  std::ifstream file(TALVEK_SOURCE_DIRECTORY "/docs/error-codes.md");
  ASSERT_TRUE(file.is_open());
  std::vector<std::string> lines;
  for (std::string line; std::getline(file, line);) lines.push_back(line);
  std::vector<std::smatch> matches;
  const auto rows = readRows(lines, matches);
  const auto table = failureTable();
  ASSERT_EQ(rows.size(), table.size());
  for (std::size_t index = 0; index < rows.size(); ++index) {
    EXPECT_EQ(rows[index].code, table[index].code) << table[index].name;
    EXPECT_EQ(rows[index].name, table[index].name);
    EXPECT_EQ(rows[index].meaning, table[index].meaning) << table[index].name;
    EXPECT_EQ(rows[index].remedy, table[index].remedy) << table[index].name;
  }
}

TEST(FailureTest, TheManualPageHoldsTheTable) {
  std::ifstream file(TALVEK_SOURCE_DIRECTORY "/docs/man/nbdctl.1");
  ASSERT_TRUE(file.is_open());
  const std::regex item(R"(\.It 0x([0-9A-F]{2}) (\w+))");
  const auto table = failureTable();
  std::size_t count = 0;
  for (std::string line; std::getline(file, line);) {
    std::smatch match;
    if (!std::regex_match(line, match, item)) continue;
    ASSERT_LT(count, table.size());
    const FailureDescription& row = table[count++];
    EXPECT_EQ(std::stoul(match[1], nullptr, 16), static_cast<unsigned long>(row.code));
    EXPECT_EQ(match[2].str(), row.name);
    std::getline(file, line);
    EXPECT_EQ(line, row.meaning) << row.name;
    std::getline(file, line);
    EXPECT_EQ(line, row.remedy) << row.name;
  }
  EXPECT_EQ(count, table.size());
}

// The numbers are a promise to those who test for them.
TEST(FailureTest, NumbersStay) {
  EXPECT_EQ(static_cast<unsigned>(FailureCode::serviceUnavailable), 0x01U);
  EXPECT_EQ(static_cast<unsigned>(FailureCode::answerLost), 0x07U);
  EXPECT_EQ(static_cast<unsigned>(FailureCode::invalidArgument), 0x10U);
  EXPECT_EQ(static_cast<unsigned>(FailureCode::serviceStopping), 0x16U);
  EXPECT_EQ(static_cast<unsigned>(FailureCode::noSuchExport), 0x20U);
  EXPECT_EQ(static_cast<unsigned>(FailureCode::nameInUse), 0x29U);
  EXPECT_EQ(static_cast<unsigned>(FailureCode::noSuchImport), 0x30U);
  EXPECT_EQ(static_cast<unsigned>(FailureCode::portInUse), 0x40U);
  EXPECT_EQ(static_cast<unsigned>(FailureCode::connectionFailed), 0x50U);
  EXPECT_EQ(static_cast<unsigned>(FailureCode::extensionMissing), 0x57U);
  EXPECT_EQ(static_cast<unsigned>(FailureCode::notReserved), 0x60U);
  EXPECT_EQ(static_cast<unsigned>(FailureCode::reservationDisabled), 0x63U);
  EXPECT_EQ(static_cast<unsigned>(FailureCode::tooManyAttempts), 0x64U);
}

// The header's enumerators, as a reader of the file sees them, are the table's rows.
TEST(FailureTest, EveryEnumeratorHasItsRow) {
  std::ifstream file(TALVEK_SOURCE_DIRECTORY "/control/failure.h");
  ASSERT_TRUE(file.is_open());
  const std::regex enumerator(R"(  (\w+) = 0x([0-9A-Fa-f]+),)");
  std::size_t count = 0;
  for (std::string line; std::getline(file, line);) {
    std::smatch match;
    if (!std::regex_match(line, match, enumerator)) continue;
    ++count;
    const auto* row = describe(static_cast<FailureCode>(std::stoul(match[2], nullptr, 16)));
    ASSERT_NE(row, nullptr) << match[1];
    EXPECT_EQ(row->name, match[1].str());
  }
  EXPECT_EQ(count, failureTable().size());
}

TEST(FailureTest, UnknownNumbersHaveNoRow) {
  EXPECT_EQ(describe(FailureCode{}), nullptr);
  EXPECT_EQ(describe(static_cast<FailureCode>(0xFFFF)), nullptr);
}

}  // namespace
}  // namespace Control
