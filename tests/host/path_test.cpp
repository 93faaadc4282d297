#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "host/runtime/path_text.h"
#include "platform/filesystem.h"

namespace {

std::string absolute(const char* path) {
  const auto text = path == nullptr ? Ref<String>() : String::create(path, 0, -1);
  return std::string(Services::Filesystem::Client::Service::absolute(text, nullptr)->view());
}

}  // namespace

TEST(ResolvePath, TakesARelativePathFromTheBase) {
  EXPECT_EQ(Host::resolvePath("disk.img", "/srv"), "/srv/disk.img");
  EXPECT_EQ(Host::resolvePath("a/b", "/srv/"), "/srv/a/b");
  EXPECT_EQ(Host::resolvePath("x", "/"), "/x");
}

TEST(ResolvePath, LeavesTheBaseOutForAnAbsolutePath) {
  EXPECT_EQ(Host::resolvePath("/dev/disk0", "/srv"), "/dev/disk0");
  EXPECT_EQ(Host::resolvePath("/", "/srv"), "/");
}

TEST(ResolvePath, ResolvesDotsAndSlashes) {
  EXPECT_EQ(Host::resolvePath("./a/./b/.", "/srv"), "/srv/a/b");
  EXPECT_EQ(Host::resolvePath("../a", "/srv/x"), "/srv/a");
  EXPECT_EQ(Host::resolvePath("a/../../b", "/srv/x"), "/srv/b");
  EXPECT_EQ(Host::resolvePath("//a///b//", "/srv"), "/a/b");
  EXPECT_EQ(Host::resolvePath("/..", "/srv"), "/");
  EXPECT_EQ(Host::resolvePath("../../../../a", "/srv/x"), "/a") << "above the root is the root";
  EXPECT_EQ(Host::resolvePath("a/..", "/srv"), "/srv");
}

TEST(ResolvePath, GivesTheBaseForNoPath) {
  EXPECT_EQ(Host::resolvePath("", "/srv/./x/.."), "/srv");
  EXPECT_EQ(Host::resolvePath(".", "/"), "/");
}

TEST(ResolvePath, KeepsNamesThatOnlyLookSpecial) {
  EXPECT_EQ(Host::resolvePath("...", "/"), "/...");
  EXPECT_EQ(Host::resolvePath(".a/..b/c.", "/"), "/.a/..b/c.");
  EXPECT_EQ(Host::resolvePath("a b\\\"", "/"), "/a b\\\"");
  EXPECT_EQ(Host::resolvePath("~", "/srv"), "/srv/~");
}

TEST(ResolvePath, StaysRelativeWithoutABase) {
  EXPECT_EQ(Host::resolvePath("a/../b", ""), "b");
  EXPECT_EQ(Host::resolvePath("../a/../..", ""), "../..");
  EXPECT_EQ(Host::resolvePath("", ""), "");
}

TEST(Absolute, StartsFromTheWorkingDirectory) {
  const std::string here = std::filesystem::current_path();
  EXPECT_EQ(absolute("disk.img"), here + "/disk.img");
  EXPECT_EQ(absolute(""), here);
  EXPECT_EQ(absolute(nullptr), here);
  EXPECT_EQ(absolute("/dev/../disk"), "/disk");
}

TEST(Absolute, StartsFromTheBase) {
  using Services::Filesystem::Client::Service;
  const std::string here = std::filesystem::current_path();
  const auto text = [](const char* literal) { return String::create(literal, 0, -1); };
  EXPECT_EQ(Service::absolute(text("a"), text("/srv"))->view(), "/srv/a");
  EXPECT_EQ(Service::absolute(text("a"), text("b"))->view(), here + "/b/a");
}
