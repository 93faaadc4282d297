#include "nbdd/exports/identity.h"

#include <gtest/gtest.h>
#include <rapidcheck.h>

#include <set>
#include <string>

namespace Nbdd {
namespace {

std::string chosen(std::string_view node, const std::set<std::string>& taken = {}) {
  return chooseExportName(node, [&](const std::string& name) { return taken.contains(name); });
}

TEST(Identity, NamesAreFileNames) {
  EXPECT_EQ(chosen("/srv/images/disk.img"), "disk.img");
  EXPECT_EQ(chosen("/disk"), "disk");
  EXPECT_EQ(chosen("/a/b/"), "b");
  EXPECT_EQ(chosen("/"), "export");
  EXPECT_EQ(chosen("/büro/größe.img"), "größe.img");
}

TEST(Identity, ControlCharactersDoNotGetIntoNames) {
  EXPECT_EQ(chosen("/a\nb\tc\x7f"), "a_b_c_");
  EXPECT_EQ(chosen("/x\xc2\x85y"), "x_y");
}

TEST(Identity, NamesAreMadeUnique) {
  EXPECT_EQ(chosen("/disk", {"disk"}), "disk-2");
  EXPECT_EQ(chosen("/disk", {"disk", "disk-2", "disk-4"}), "disk-3");
}

TEST(Identity, WhatIsAName) {
  EXPECT_TRUE(isExportName("x"));
  EXPECT_TRUE(isExportName(std::string(4096, 'x')));
  EXPECT_FALSE(isExportName(std::string(4097, 'x')));
  EXPECT_FALSE(isExportName(""));
  EXPECT_FALSE(isExportName(std::string("a\0b", 3)));
  EXPECT_FALSE(isExportName("a\x1b[2J"));
  EXPECT_FALSE(isExportName("\xc2\x9b"));
  EXPECT_FALSE(isExportName("\xff"));
  EXPECT_FALSE(isExportName("\xed\xa0\x80"));
}

TEST(Identity, WhatIsAPath) {
  EXPECT_TRUE(isNodePath("/"));
  EXPECT_TRUE(isNodePath("/a\nb"));
  EXPECT_FALSE(isNodePath(""));
  EXPECT_FALSE(isNodePath("a/b"));
  EXPECT_FALSE(isNodePath(std::string("/a\0", 3)));
  EXPECT_FALSE(isNodePath("/\xff"));
  EXPECT_TRUE(isNodePath("/" + std::string(4094, 'x')));
  EXPECT_FALSE(isNodePath("/" + std::string(4095, 'x')));
}

TEST(Identity, UuidsAreRandomAndOfVersionFour) {
  std::set<std::string> seen;
  for (int count = 0; count < 1000; ++count) {
    const std::string uuid = makeUuid();
    EXPECT_TRUE(isUuid(uuid)) << uuid;
    EXPECT_EQ(uuid[14], '4');
    EXPECT_NE(std::string("89ab").find(uuid[19]), std::string::npos);
    EXPECT_TRUE(seen.insert(uuid).second);
  }
}

TEST(Identity, WhatIsNoUuid) {
  EXPECT_FALSE(isUuid(""));
  EXPECT_FALSE(isUuid("9e31b2fa-b115-47e9-8c62-81e89028abf"));
  EXPECT_FALSE(isUuid("9E31b2fa-b115-47e9-8c62-81e89028abf0"));
  EXPECT_FALSE(isUuid("9e31b2fa_b115-47e9-8c62-81e89028abf0"));
}

TEST(IdentityProperty, EveryFileNameGivesAName) {
  // Characters of every length and kind, control characters among them.
  const auto character =
      rc::gen::element<std::string>("a", "-", " ", "\n", "\x7f", "\xc2\x85", "ü", "€", "😀", "\\", "\"");
  rc::check([&] {
    std::string path = "/";
    for (const std::string& piece : *rc::gen::container<std::vector<std::string>>(character)) path += piece;
    RC_ASSERT(isNodePath(path));
    RC_ASSERT(isExportName(chosen(path)));
  });
}

}  // namespace
}  // namespace Nbdd
