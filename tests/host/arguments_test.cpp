#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "host/binary.h"
#include "host/usage.h"
#include "platform/binary.h"
#include "talvek_version.h"

namespace {

/// Arguments as `main` gets them.
class Arguments {
 public:
  explicit Arguments(std::vector<std::string> words) : words_(std::move(words)) {
    for (auto& word : words_) {
      pointers_.push_back(word.data());
    }
  }

  std::span<char*> span() { return pointers_; }

 private:
  std::vector<std::string> words_;
  std::vector<char*> pointers_;
};

std::optional<std::string> answer(std::vector<std::string> words) {
  return Host::answerOption(Arguments(std::move(words)).span());
}

}  // namespace

TEST(Binary, HandsOutTheArguments) {
  Arguments arguments({"nbdctl", "add", "", "\xFF x"});
  Host::setArguments(arguments.span());
  EXPECT_EQ(Binary::argCount(), 4U);
  EXPECT_EQ(Binary::arg(0)->view(), "nbdctl");
  EXPECT_EQ(Binary::arg(1)->view(), "add");
  EXPECT_EQ(Binary::arg(2)->view(), "");
  EXPECT_EQ(Binary::arg(3)->view(), "\xFF x");
  EXPECT_FALSE(Binary::arg(4));
  Host::setArguments({});
  EXPECT_EQ(Binary::argCount(), 0U);
}

TEST(Usage, AnswersTheOptionsOfTheHost) {
  for (const std::string option : {"-h", "--help"}) {
    const auto text = answer({"nbdctl", option});
    ASSERT_TRUE(text);
    EXPECT_TRUE(text->starts_with("Usage: nbdctl "));
    EXPECT_NE(text->find("nbdctl(1)"), std::string::npos);
    EXPECT_TRUE(text->ends_with("\n"));
  }
  for (const std::string option : {"-V", "--version"}) {
    EXPECT_EQ(answer({"nbdctl", option}), std::string("nbdctl ") + talvekVersion + "\n");
  }
}

TEST(Usage, LeavesEverythingElseToTheProgram) {
  EXPECT_EQ(answer({}), std::nullopt);
  EXPECT_EQ(answer({"nbdctl"}), std::nullopt);
  EXPECT_EQ(answer({"nbdctl", "help"}), std::nullopt);
  EXPECT_EQ(answer({"nbdctl", "--helper"}), std::nullopt);
  EXPECT_EQ(answer({"nbdctl", "--help "}), std::nullopt);
  EXPECT_EQ(answer({"nbdctl", "add", "--help"}), std::nullopt);
}
