#include "server/variant_printer.h"

#include <gtest/gtest.h>

#include <string>

#include "platform/commandline.h"
#include "shell/output.h"
#include "shell/tear_down.h"
#include "tests/support/scripted_platform.h"
#include "tests/utility/variants.h"

using Support::entryOf;
using Support::list;
using Support::nested;
using Support::number;
using Support::octets;
using Support::text;
using Support::words;
using namespace Services::NBD::Client::Types;

namespace {

const std::string tenBlanks(10, ' ');

/// The platform with the program's printer.
class Printing : public testing::Test {
 protected:
  Printing() {
    Shell::registerOutputRelease();
    Shell::setOutput(Libraries::Commandline::outPrinter());
  }
  ~Printing() override { Shell::runTearDown(); }

  std::string printed(const VariantEntry& entry, std::int32_t depth = 0,
                      const std::string& indent = tenBlanks) {
    platform_.journal.clear();
    Server::printVariantEntry(entry, depth, indent.c_str());
    return platform_.journal;
  }

  std::string printedList(const Variant& properties) {
    platform_.journal.clear();
    Server::printPropertyList("Things: ", properties);
    return platform_.journal;
  }

  Support::Platform platform_;
};

using VariantEntryPrinter = Printing;
using PropertyList = Printing;

}  // namespace

// ---- One entry.

TEST_F(VariantEntryPrinter, ShowsEachType) {
  EXPECT_EQ(printed(entryOf("nothing", VariantType::Empty)),
            "  Property: nothing\n"
            "  -> value: <N/A>\n");
  EXPECT_EQ(printed(number("count", 17)),
            "  Property: count\n"
            "  -> value: 17\n");
  EXPECT_EQ(printed(words("vendor", "X and Y")),
            "  Property: vendor\n"
            "  -> value: X and Y\n");
  EXPECT_EQ(printed(octets("key", 32)),
            "  Property: key\n"
            "  -> value: <binary[32]>\n");
  EXPECT_EQ(printed(nested("net", {})),
            "  Property: net\n"
            "  -> value: <nested>\n");
}

TEST_F(VariantEntryPrinter, LeavesTheLineOfAnUnknownTypeOpen) {
  for (const std::uint32_t type : {5U, 6U, 0xFFFFFFFFU}) {
    EXPECT_EQ(printed(entryOf("future", static_cast<VariantType>(type))),
              "  Property: future\n"
              "  -> value: ")
        << type;
  }
}

TEST_F(VariantEntryPrinter, ContinuesALineThatWasLeftOpen) {
  EXPECT_EQ(printed(nested("all", {entryOf("future", static_cast<VariantType>(9)), number("next", 1)})),
            "  Property: all\n"
            "  -> value: <nested>\n"
            "            Property: future\n"
            "            -> value:             Property: next\n"
            "            -> value: 1\n");
}

TEST_F(VariantEntryPrinter, LooksAtTheFieldOfTheTypeAlone) {
  VariantEntry entry = nested("all at once", {number("child", 1)});
  entry.number = 5;
  entry.text = text("text");
  entry.binary = BinaryData::create(std::vector<std::byte>(3));
  const std::vector<std::pair<VariantType, std::string>> values{
      {VariantType::Empty, "<N/A>"},
      {VariantType::Number, "5"},
      {VariantType::Text, "text"},
      {VariantType::Binary, "<binary[3]>"},
  };
  for (const auto& [type, value] : values) {
    entry.type = type;
    EXPECT_EQ(printed(entry), "  Property: all at once\n  -> value: " + value + "\n");
  }
}

TEST_F(VariantEntryPrinter, PrintsNumbersUnsignedAndInFull) {
  EXPECT_EQ(printed(number("n", 0)), "  Property: n\n  -> value: 0\n");
  EXPECT_EQ(printed(number("n", 255)), "  Property: n\n  -> value: 255\n");
  EXPECT_EQ(printed(number("n", 0x8000000000000000)), "  Property: n\n  -> value: 9223372036854775808\n");
  EXPECT_EQ(printed(number("n", 0xFFFFFFFFFFFFFFFF)), "  Property: n\n  -> value: 18446744073709551615\n");
}

TEST_F(VariantEntryPrinter, PrintsNumbersInDecimalAfterACodeInHexadecimal) {
  platform_.setError(0xAB);
  Shell::printError("error 0x");
  EXPECT_EQ(printed(octets("o", 171)), "  Property: o\n  -> value: <binary[171]>\n");
  EXPECT_EQ(printed(number("n", 171)), "  Property: n\n  -> value: 171\n");
}

TEST_F(VariantEntryPrinter, KeepsTheBlankBeforeWhatIsEmpty) {
  EXPECT_EQ(printed(words("", "")),
            "  Property: \n"
            "  -> value: \n");
  EXPECT_EQ(printed(VariantEntry()),
            "  Property: \n"
            "  -> value: <N/A>\n");
}

TEST_F(VariantEntryPrinter, PrintsBinaryDataThatIsEmptyOrNotThereAsNoOctets) {
  EXPECT_EQ(printed(octets("key", 0)), "  Property: key\n  -> value: <binary[0]>\n");
  EXPECT_EQ(printed(entryOf("key", VariantType::Binary)), "  Property: key\n  -> value: <binary[0]>\n");
}

TEST_F(VariantEntryPrinter, PrintsNothingForTextsThatAreNotThere) {
  VariantEntry entry = entryOf("", VariantType::Text);
  entry.name = nullptr;
  EXPECT_EQ(printed(entry), "  Property: \n  -> value: \n");
}

TEST_F(VariantEntryPrinter, PrintsTextsAsTheyAre) {
  EXPECT_EQ(printed(words("a\tb", std::string_view("\xFF\0\n x", 5))),
            std::string("  Property: a\tb\n  -> value: \xFF\0\n x\n", 34));
}

TEST_F(VariantEntryPrinter, IndentsEveryLevelByTenMoreBlanks) {
  EXPECT_EQ(printed(nested("0", {nested("1", {nested("2", {number("3", 3)})}), number("1b", 1)})),
            "  Property: 0\n"
            "  -> value: <nested>\n"
            "            Property: 1\n"
            "            -> value: <nested>\n"
            "                      Property: 2\n"
            "                      -> value: <nested>\n"
            "                                Property: 3\n"
            "                                -> value: 3\n"
            "            Property: 1b\n"
            "            -> value: 1\n");
}

TEST_F(VariantEntryPrinter, IndentsItsOwnLevelByWhatItWasGiven) {
  EXPECT_EQ(printed(number("n", 1), 1, "  "), "    Property: n\n    -> value: 1\n");
  EXPECT_EQ(printed(number("n", 1), 3, "-"), "  ---Property: n\n  ----> value: 1\n");
  EXPECT_EQ(printed(number("n", 1), 2, ""), "  Property: n\n  -> value: 1\n");
}

TEST_F(VariantEntryPrinter, IndentsWhatIsNestedByTenBlanksALevelWhateverItWasGiven) {
  EXPECT_EQ(printed(nested("net", {number("port", 5), nested("deeper", {number("n", 1)})}), 1, "  "),
            "    Property: net\n"
            "    -> value: <nested>\n"
            "                      Property: port\n"
            "                      -> value: 5\n"
            "                      Property: deeper\n"
            "                      -> value: <nested>\n"
            "                                Property: n\n"
            "                                -> value: 1\n");
}

TEST_F(VariantEntryPrinter, IndentsNothingAtALevelOfZeroOrLess) {
  for (const std::int32_t depth : {0, -1, -2147483647 - 1}) {
    EXPECT_EQ(printed(number("n", 1), depth), "  Property: n\n  -> value: 1\n") << depth;
  }
}

TEST_F(VariantEntryPrinter, GoesAsDeepAsTheDataDo) {
  VariantEntry entry = number("leaf", 1);
  for (int level = 0; level < 200; ++level) {
    entry = nested("n", {entry});
  }
  const std::string lines = printed(entry);
  const std::string leaf = "  " + std::string(2000, ' ') + "Property: leaf\n";
  EXPECT_TRUE(lines.find("\n" + leaf) != std::string::npos) << lines.substr(lines.size() - 100);
}

// ---- A list of properties.

TEST_F(PropertyList, SaysThatThereIsNothing) { EXPECT_EQ(printedList({}), "Things: 0\n"); }

TEST_F(PropertyList, PutsAnEmptyLineBehindEachEntryOfTheFirstLevelAlone) {
  EXPECT_EQ(printedList(list({words("vendor", "X"), nested("net", {number("port", 5), nested("none", {})})})),
            "Things: 2\n"
            "  Property: vendor\n"
            "  -> value: X\n"
            "\n"
            "  Property: net\n"
            "  -> value: <nested>\n"
            "            Property: port\n"
            "            -> value: 5\n"
            "            Property: none\n"
            "            -> value: <nested>\n"
            "\n");
}

TEST_F(PropertyList, EndsTheOpenLineOfAnUnknownTypeWithItsEmptyLine) {
  EXPECT_EQ(printedList(list({entryOf("future", static_cast<VariantType>(5)), number("n", 1)})),
            "Things: 2\n"
            "  Property: future\n"
            "  -> value: \n"
            "  Property: n\n"
            "  -> value: 1\n"
            "\n");
}

TEST_F(PropertyList, KeepsTheServicesOrderAndEqualNames) {
  EXPECT_EQ(printedList(list({number("b", 1), number("a", 2), number("b", 3)})),
            "Things: 3\n"
            "  Property: b\n  -> value: 1\n\n"
            "  Property: a\n  -> value: 2\n\n"
            "  Property: b\n  -> value: 3\n\n");
}
