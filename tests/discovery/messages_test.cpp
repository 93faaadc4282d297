#include "nbdd/discovery/messages.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "nbdd/limits.h"

namespace Nbdd::Discovery {
namespace {

Sighting sighting() {
  return {.id = 18446744073709551615U,
          .name = "alpha \"1\"",
          .target = "nbdd-1.local",
          .interfaceName = "eth0",
          .interfaceIndex = 2,
          .address = "fe80::1%eth0",
          .port = 65535,
          .text = {.uuid = "0b5cbd4c-6f5a-4c5e-9a3e-3f6f1a2b3c4d",
                   .version = "1",
                   .platform = "Linux",
                   .label = "ä",
                   .hostName = "alpha"}};
}

TEST(Messages, WishesArriveAsTheyWere) {
  const Announcement announcement{.name = "alpha",
                                  .target = "nbdd-1",
                                  .addresses = {"0.0.0.0", "::"},
                                  .port = 10809,
                                  .timeToLive = std::chrono::seconds(120),
                                  .text = {"uuid=1", "label=x"}};
  for (const Wish& wish : {Wish{}, Wish{.interfaces = {"eth0"}, .browse = true, .question = 7},
                           Wish{.announcements = {announcement}}}) {
    const auto decoded = decodeWish(encode(wish));
    ASSERT_TRUE(decoded.has_value()) << decoded.error();
    EXPECT_EQ(*decoded, wish);
  }
}

TEST(Messages, ReportsArriveAsTheyWere) {
  for (const Report& report : {Report(sighting()), Report(Lost{7}), Report(Searched{}),
                               Report(Remark{LogLevel::warning, "so\nso"})}) {
    const auto decoded = decodeReport(encode(report));
    ASSERT_TRUE(decoded.has_value()) << decoded.error();
    EXPECT_EQ(*decoded, report);
  }
}

TEST(Messages, WhatIsNoMessageIsRefused) {
  for (const char* const text :
       {"", "x", "1", "[]", "{}", R"({"lost":-1})", R"({"lost":"1"})", R"({"found":1})", R"({"remark":"x"})",
        R"({"remark":"x","level":0})", R"({"remark":1,"level":6})"}) {
    EXPECT_FALSE(decodeReport(text).has_value()) << text;
    EXPECT_FALSE(decodeWish(text).has_value()) << text;
  }
}

TEST(Messages, WhoeverWroteThemTheyKeepToTheLimits) {
  Sighting longName = sighting();
  longName.name = std::string(Limits::discoveryTextLength + 1, 'x');
  EXPECT_FALSE(decodeReport(encode(Report(longName))).has_value());
  Sighting wrongUuid = sighting();
  wrongUuid.text.uuid = "x";
  EXPECT_FALSE(decodeReport(encode(Report(wrongUuid))).has_value());
  Sighting nowhere = sighting();
  nowhere.address.clear();
  EXPECT_FALSE(decodeReport(encode(Report(nowhere))).has_value());
  EXPECT_FALSE(decodeWish(encode(Wish{.announcements = {{}, {}}})).has_value());
}

TEST(Messages, TheLongestFits) {
  const std::string longest(Limits::discoveryTextLength, '\x01');
  Sighting all = sighting();
  all.name = all.target = all.interfaceName = all.address = longest;
  all.text.version = all.text.platform = all.text.label = all.text.hostName = longest;
  EXPECT_LE(encode(Report(all)).size(), Limits::discoveryMessage);
}

}  // namespace
}  // namespace Nbdd::Discovery
