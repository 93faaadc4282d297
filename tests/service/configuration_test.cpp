#include "nbdd/config/configuration.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <map>

#include "nbdd/config/locations.h"
#include "tests/support/service_process.h"

namespace Nbdd {
namespace {

using ::Testing::TemporaryDirectory;

std::string errorOf(std::string_view text) {
  const auto configuration = parseConfiguration(text, "nbdd.toml");
  return configuration ? "" : configuration.error();
}

void expectErrorAt(std::string_view place, std::string_view text) {
  const std::string error = errorOf(text);
  EXPECT_TRUE(error.starts_with("nbdd.toml:" + std::string(place) + ": ")) << text << "\n" << error;
  EXPECT_EQ(error.find('\n'), std::string::npos) << error;
}

TEST(Configuration, NothingGivesTheDefaults) {
  for (const char* const text : {"", "# nothing\n", "[server]\n"}) {
    const auto configuration = parseConfiguration(text, "nbdd.toml");
    ASSERT_TRUE(configuration.has_value()) << configuration.error();
    EXPECT_EQ(*configuration, Configuration{});
    EXPECT_TRUE(configuration->listen.empty());
    EXPECT_EQ(configuration->port, 10809);
  }
}

TEST(Configuration, EverySettingIsRead) {
  const auto configuration = parseConfiguration(
      "[server]\nlisten = [\"127.0.0.1\", \"0:0::1\", \"fe80::1%eth0\"]\nport = 0\n", "nbdd.toml");
  ASSERT_TRUE(configuration.has_value()) << configuration.error();
  EXPECT_EQ(configuration->listen, (std::vector<std::string>{"127.0.0.1", "::1", "fe80::1%eth0"}));
  EXPECT_EQ(configuration->port, 0);
  EXPECT_EQ(parseConfiguration("[reservations]\nlease = 60\n", "nbdd.toml")->lease, std::chrono::seconds(60));
}

TEST(Configuration, SettingsOfDiscoveryAreRead) {
  const auto configuration = parseConfiguration(
      "[discovery]\nenabled = false\nlabel = \"Shelf 4\"\ninterfaces = [\"eth0\", \"wlan0.1\"]\ntime-to-live "
      "= 2\n",
      "nbdd.toml");
  ASSERT_TRUE(configuration.has_value()) << configuration.error();
  EXPECT_FALSE(configuration->discovery);
  EXPECT_EQ(configuration->label, "Shelf 4");
  EXPECT_EQ(configuration->interfaces, (std::vector<std::string>{"eth0", "wlan0.1"}));
  EXPECT_EQ(configuration->timeToLive.count(), 2);
  EXPECT_TRUE(parseConfiguration("", "nbdd.toml")->discovery);
  EXPECT_EQ(parseConfiguration("", "nbdd.toml")->timeToLive.count(), 120);
}

TEST(Configuration, MistakesInSettingsOfDiscoveryAreTold) {
  EXPECT_NE(errorOf("discovery = true\n"), "");
  for (const std::string wrong :
       {"enabled = 1", "enabled = \"true\"", "label = \"\"", "label = 1", "label = \"\u00e4\"",
        "label = \"a?\"", "interfaces = \"eth0\"", "interfaces = []", "interfaces = [1]",
        "interfaces = [\"a b\"]", "interfaces = [\"sixteen-letters-\"]", "time-to-live = 1",
        "time-to-live = 86401", "time-to-live = -1", "time-to-live = 2.0", "ttl = 2"}) {
    EXPECT_TRUE(errorOf("[discovery]\n" + wrong + "\n").starts_with("nbdd.toml:2:")) << wrong;
  }
  EXPECT_NE(errorOf("[discovery]\nlabel = \"" + std::string(64, 'x') + "\"\n"), "");
  EXPECT_EQ(errorOf("[discovery]\nlabel = \"" + std::string(63, 'x') + "\"\n"), "");
}

TEST(Configuration, WhatIsNotTomlIsToldWithoutDoubledBackslashes) {
  const std::string error = errorOf("x\n");
  EXPECT_NE(error.find("saw '\\n'"), std::string::npos) << error;
}

TEST(Configuration, MistakesAreToldWithTheirPlace) {
  expectErrorAt("1:2", "[sever]\n");
  expectErrorAt("1:1", "port = 1\n");
  expectErrorAt("2:1", "[server]\nprot = 1\n");
  expectErrorAt("3:3", "[server]\nport = 1\n  listne = []\n");
  expectErrorAt("2:8", "[server]\nport = \"10809\"\n");
  expectErrorAt("2:8", "[server]\nport = 65536\n");
  expectErrorAt("2:8", "[server]\nport = -1\n");
  expectErrorAt("2:8", "[server]\nport = 1.0\n");
  expectErrorAt("2:10", "[server]\nlisten = \"127.0.0.1\"\n");
  expectErrorAt("2:10", "[server]\nlisten = []\n");
  expectErrorAt("2:11", "[server]\nlisten = [7]\n");
  expectErrorAt("2:24", "[server]\nlisten = [\"127.0.0.1\", \"localhost\"]\n");
  expectErrorAt("2:18", "[server]\nlisten = [\"::1\", \"0::1\"]\n");
  expectErrorAt("2:11", "[server]\nlisten = [\"127.0.0.1:10809\"]\n");
  expectErrorAt("2:11", "[server]\nlisten = [\"127.0.0.1%eth0\"]\n");
  expectErrorAt("2:11", "[server]\nlisten = [\"::1%\"]\n");
  expectErrorAt("2:11", "[server]\nlisten = [\"127.0.0.1\\u0000\"]\n");
  expectErrorAt("1:10", "server = 1\n");
  expectErrorAt("1:16", "reservations = 1\n");
  expectErrorAt("2:1", "[reservations]\nleese = 1\n");
  expectErrorAt("2:9", "[reservations]\nlease = 0\n");
  expectErrorAt("2:9", "[reservations]\nlease = 604801\n");
  expectErrorAt("2:9", "[reservations]\nlease = \"300\"\n");
  EXPECT_FALSE(errorOf("[server\n").empty());
  expectErrorAt("1:2", "[(erver]\n");
  EXPECT_FALSE(errorOf("[server]\nport = 1\nport = 2\n").empty());
  expectErrorAt("1:1", "\xff\xfe");
  expectErrorAt("2:6", "[server]\nport \xc3 = 1\n");
  expectErrorAt("1:2", std::string_view("[\0server]\n", 10));
  expectErrorAt("3:1", "[server]\n\n\x7f");
}

TEST(Configuration, CommentsAreInAnyLanguage) {
  const auto configuration =
      parseConfiguration("# größer €😀\n[server] # ü\nport = 7 # \xef\xae\x95\n", "nbdd.toml");
  ASSERT_TRUE(configuration.has_value()) << configuration.error();
  EXPECT_EQ(configuration->port, 7);
  expectErrorAt("2:3", "[server]\ngröße = 1\n");
  expectErrorAt("2:1", "[server]\n\"größe\" = 1\n");
  expectErrorAt("2:12", "[server]\n\"a\" = \"öä\" \x01\n");
  expectErrorAt("2:11", "[server]\nlisten = [\"fe80::1%büro\"]\n");
}

TEST(Configuration, ForeignTextInMessagesIsEscaped) {
  const std::string error = errorOf("[server]\n\"a\\u001b[2J\" = 1\n");
  EXPECT_EQ(error.find('\x1b'), std::string::npos);
  EXPECT_NE(error.find("\\x1b"), std::string::npos);
}

TEST(Configuration, SizeIsBounded) {
  EXPECT_FALSE(errorOf(std::string(1'000'000, '#')).empty());
  EXPECT_FALSE(errorOf("x = " + std::string(60'000, '[')).empty());
  std::string many = "[server]\nlisten = [\n";
  for (int last = 1; last <= 65; ++last) many += "\"10.0.0." + std::to_string(last) + "\",\n";
  EXPECT_FALSE(errorOf(many + "]\n").empty());
}

TEST(Configuration, AMissingFileIsFineUnlessNamed) {
  const TemporaryDirectory directory;
  const auto file = directory.path() / "nbdd.toml";
  EXPECT_EQ(loadConfiguration(file, false).value(), Configuration{});
  const auto named = loadConfiguration(file, true);
  ASSERT_FALSE(named.has_value());
  EXPECT_TRUE(named.error().starts_with(file.native()));
  ASSERT_EQ(::mkfifo(file.c_str(), 0600), 0);
  EXPECT_FALSE(loadConfiguration(file, false).has_value());
}

// Where things live.

Environment with(std::map<std::string, std::string> variables) {
  return [variables = std::move(variables)](const char* name) -> std::optional<std::string> {
    const auto found = variables.find(name);
    if (found == variables.end()) return {};
    return found->second;
  };
}

TEST(Locations, TheSystemsService) {
  const auto locations = findLocations(with({{"XDG_RUNTIME_DIR", "/run/user/0"}}), 0, "/root", {});
  ASSERT_TRUE(locations.has_value());
  EXPECT_TRUE(locations->system);
  EXPECT_EQ(locations->controlSocket(), "/run/nbdd/org.talvek.NBD");
  EXPECT_EQ(locations->stateDirectory, "/var/lib/nbdd");
  EXPECT_EQ(locations->configurationFile, "/etc/nbdd.toml");
  EXPECT_FALSE(locations->configurationNamed);
}

TEST(Locations, AUsersOwn) {
  auto locations = findLocations(with({{"XDG_RUNTIME_DIR", "/run/user/7"}}), 7, "/home/u", {});
  ASSERT_TRUE(locations.has_value());
  EXPECT_EQ(locations->controlSocket(), "/run/user/7/nbdd/org.talvek.NBD");
  EXPECT_EQ(locations->stateDirectory, "/home/u/.local/state/nbdd");
  EXPECT_EQ(locations->configurationFile, "/home/u/.config/nbdd.toml");

  locations =
      findLocations(with({{"XDG_STATE_HOME", "/s"}, {"XDG_CONFIG_HOME", "relative"}}), 7, "/home/u", {});
  ASSERT_TRUE(locations.has_value());
  EXPECT_EQ(locations->runtimeDirectory, "/tmp/nbdd-7");
  EXPECT_EQ(locations->stateDirectory, "/s/nbdd");
  EXPECT_EQ(locations->configurationFile, "/home/u/.config/nbdd.toml");
}

TEST(Locations, OverridesComeFirst) {
  const auto environment =
      with({{"NBDD_RUNTIME_DIR", "/r"}, {"NBDD_STATE_DIR", "/s"}, {"NBDD_CONFIG", "/c"}});
  for (const uid_t user : {0U, 7U}) {
    const auto locations = findLocations(environment, user, {}, {});
    ASSERT_TRUE(locations.has_value());
    EXPECT_EQ(locations->controlSocket(), "/r/org.talvek.NBD");
    EXPECT_EQ(locations->stateDirectory, "/s");
    EXPECT_EQ(locations->configurationFile, "/c");
    EXPECT_TRUE(locations->configurationNamed);
  }
  EXPECT_EQ(findLocations(environment, 7, {}, "/option")->configurationFile, "/option");
}

TEST(Locations, WithoutAHomeThereIsASentence) {
  EXPECT_FALSE(findLocations(with({}), 7, {}, {}).has_value());
  EXPECT_FALSE(findLocations(with({{"NBDD_STATE_DIR", "/s"}}), 7, {}, {}).has_value());
}

TEST(Locations, DirectoriesAreMadeAndChecked) {
  const TemporaryDirectory directory;
  const auto made = directory.path() / "a" / "b";
  ASSERT_TRUE(prepareDirectory(made, 0700).has_value());
  EXPECT_EQ(std::filesystem::status(made).permissions(), std::filesystem::perms(0700));
  ASSERT_TRUE(prepareDirectory(made, 0700).has_value());
  std::filesystem::permissions(made, std::filesystem::perms(0777));
  EXPECT_FALSE(prepareDirectory(made, 0700).has_value());
  directory.write("file", "");
  EXPECT_FALSE(prepareDirectory(directory.path() / "file", 0700).has_value());
  EXPECT_FALSE(prepareDirectory(directory.path() / "file" / "below", 0700).has_value());
}

}  // namespace
}  // namespace Nbdd
