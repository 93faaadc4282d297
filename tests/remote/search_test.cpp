#include "nbdd/remote/search.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "nbdd/limits.h"

namespace Nbdd::Remote {
namespace {

using Control::Endpoint;
using Control::RemoteExportList;
using Result = Control::Result<RemoteExportList>;

Endpoint server(std::size_t number) {
  return {.address = "192.0.2." + std::to_string(number), .port = 10809};
}

std::vector<Endpoint> servers(std::size_t count) {
  std::vector<Endpoint> all;
  for (std::size_t number = 0; number < count; ++number) all.push_back(server(number));
  return all;
}

RemoteExportList listNamed(std::string name) {
  RemoteExportList list;
  list.exports.push_back({.name = std::move(name)});
  return list;
}

struct SearchTest : ::testing::Test {
  struct Asked {
    Endpoint endpoint;
    Search::Expression expression;
    Search::Answer answer;
  };

  /// Asks the search, and gives back where the answer will be found.
  std::shared_ptr<std::vector<std::string>> fetch(std::size_t number, std::size_t found,
                                                  Search::Expression expression = {std::byte{1}}) {
    auto got = std::make_shared<std::vector<std::string>>();
    Search::Answer answer = [got](Result result) {
      got->push_back(result ? result->exports.at(0).name : "failed");
    };
    isSearch = search.fetch(server(number), expression, servers(found), answer);
    return got;
  }

  void answer(std::size_t index, const std::string& name) { asked.at(index).answer(listNamed(name)); }

  std::vector<std::string> askedAddresses() const {
    std::vector<std::string> addresses;
    for (const Asked& each : asked) addresses.push_back(each.endpoint.address);
    return addresses;
  }

  Io::EventLoop loop;
  std::vector<Asked> asked;
  bool atOnce = false;
  bool isSearch = false;
  Search search{loop, [this](Endpoint endpoint, Search::Expression expression, Search::Answer answer) {
                  if (atOnce) return answer(listNamed(endpoint.address));
                  asked.push_back({std::move(endpoint), std::move(expression), std::move(answer)});
                }};
};

using Names = std::vector<std::string>;

TEST_F(SearchTest, ToAskAServerThatWasNotFoundIsNoSearch) {
  const auto got = fetch(9, 3);
  EXPECT_FALSE(isSearch);
  EXPECT_TRUE(asked.empty());
  EXPECT_TRUE(got->empty());
}

TEST_F(SearchTest, OneThatWasFoundIsAskedWithAllOthers) {
  const auto second = fetch(1, 3);
  EXPECT_TRUE(isSearch);
  EXPECT_EQ(askedAddresses(), (Names{"192.0.2.1", "192.0.2.0", "192.0.2.2"}));
  answer(2, "two");
  const auto third = fetch(2, 3);
  EXPECT_EQ(*third, Names{"two"});
  const auto first = fetch(0, 3);
  EXPECT_TRUE(first->empty());
  answer(1, "zero");
  EXPECT_EQ(*first, Names{"zero"});
  EXPECT_TRUE(second->empty());
  asked.at(0).answer(std::unexpected(Control::Failure{Control::FailureCode::remoteTimeout, "late"}));
  EXPECT_EQ(*second, Names{"failed"});
  EXPECT_EQ(asked.size(), 3U);
}

TEST_F(SearchTest, AnAnswerIsGivenOnce) {
  fetch(0, 2);
  answer(0, "old");
  answer(1, "other");
  const auto again = fetch(0, 2);
  EXPECT_TRUE(again->empty());
  EXPECT_EQ(asked.size(), 4U);
  answer(2, "new");
  EXPECT_EQ(*again, Names{"new"});
}

TEST_F(SearchTest, AnotherExpressionIsAnotherQuestion) {
  const auto first = fetch(0, 1, {std::byte{1}});
  const auto second = fetch(0, 1, {std::byte{2}});
  ASSERT_EQ(asked.size(), 2U);
  EXPECT_EQ(asked[1].expression, Search::Expression{std::byte{2}});
  answer(1, "second");
  answer(0, "first");
  EXPECT_EQ(*first, Names{"first"});
  EXPECT_EQ(*second, Names{"second"});
}

TEST_F(SearchTest, ManyAreAskedSomeAtATime) {
  const std::size_t count = 2 * Limits::searchAtOnce;
  fetch(0, count);
  EXPECT_EQ(asked.size(), Limits::searchAtOnce);
  answer(5, "x");
  EXPECT_EQ(asked.size(), Limits::searchAtOnce + 1);
  for (std::size_t index = 0; index < count; ++index) {
    if (index != 5) answer(index, "x");
  }
  EXPECT_EQ(asked.size(), count);
}

TEST_F(SearchTest, ARoundThatIsOverAsksOnlyForThoseWhoWait) {
  const std::size_t count = 2 * Limits::searchAtOnce;
  fetch(0, count, {std::byte{1}});
  const auto late = fetch(count - 1, count, {std::byte{1}});
  fetch(0, 1, {std::byte{2}});
  const std::size_t before = asked.size();
  answer(1, "x");
  ASSERT_EQ(asked.size(), before + 1);
  EXPECT_EQ(asked.back().endpoint, server(count - 1));
  asked.back().answer(listNamed("late"));
  EXPECT_EQ(*late, Names{"late"});
  EXPECT_EQ(asked.size(), before + 1);
}

TEST_F(SearchTest, AnswersMayComeAtOnce) {
  atOnce = true;
  for (std::size_t number = 0; number < 3; ++number) {
    EXPECT_EQ(*fetch(number, 10'000), Names{server(number).address});
  }
}

}  // namespace
}  // namespace Nbdd::Remote
