#include <gtest/gtest.h>

#include <string>

#include "nbdd/config/configuration.h"

namespace Nbdd {
namespace {

Configuration read(const std::string& text) {
  const auto configuration = parseConfiguration(text, "file");
  EXPECT_TRUE(configuration.has_value()) << configuration.error();
  return configuration.value_or(Configuration());
}

void expectRefused(const std::string& text, const std::string& place, const std::string& words) {
  const auto configuration = parseConfiguration(text, "file");
  ASSERT_FALSE(configuration.has_value()) << text;
  EXPECT_TRUE(configuration.error().starts_with("file:" + place + ": ")) << configuration.error();
  EXPECT_NE(configuration.error().find(words), std::string::npos) << configuration.error();
}

TEST(SecuritySettings, AreOffByThemselves) {
  const Configuration configuration = read("[server]\nport = 1\n");
  EXPECT_EQ(configuration.tls.mode, Nbd::TlsMode::off);
  EXPECT_EQ(configuration.importTls.mode, Nbd::TlsMode::off);
  EXPECT_TRUE(configuration.allow.empty());
  EXPECT_TRUE(configuration.exportAllow.empty());
}

TEST(SecuritySettings, AreAllRead) {
  const Configuration configuration = read(
      "[tls]\nmode = \"required\"\ndirectory = \"/etc/tls\"\nkeys = \"/etc/keys.psk\"\n"
      "client-certificates = true\nclients = [\"alice\", \"b\\u00f6b\"]\n"
      "[tls.imports]\nmode = \"allowed\"\nkeys = \"/k\"\nuser = \"carol\"\nverify-name = false\n");
  EXPECT_EQ(configuration.tls.mode, Nbd::TlsMode::required);
  EXPECT_EQ(configuration.tls.directory, "/etc/tls");
  EXPECT_EQ(configuration.tls.keys, "/etc/keys.psk");
  EXPECT_TRUE(configuration.tls.clientCertificates);
  EXPECT_EQ(configuration.tls.clients, (std::vector<std::string>{"alice",
                                                                 "b\xc3\xb6"
                                                                 "b"}));
  EXPECT_EQ(configuration.importTls.mode, Nbd::TlsMode::allowed);
  EXPECT_EQ(configuration.importTls.keys, "/k");
  EXPECT_EQ(configuration.importTls.user, "carol");
  EXPECT_FALSE(configuration.importTls.verifyName);
}

TEST(SecuritySettings, WhatMakesNoSenseIsRefused) {
  expectRefused("[tls]\nmode = \"sometimes\"\n", "2:8", "\"off\", \"allowed\" or \"required\"");
  expectRefused("[tls]\nmode = true\n", "2:8", "\"off\", \"allowed\" or \"required\"");
  expectRefused("[tls]\nmode = \"required\"\n", "1:1", "nothing to prove the server with");
  expectRefused("[tls]\ndirectory = \"tls\"\n", "2:13", "absolute path");
  expectRefused("[tls]\ndirectory = \"\"\n", "2:13", "empty");
  expectRefused("[tls]\ndirectory = 1\n", "2:13", "put it in quotes");
  expectRefused("[tls]\nclients = []\n", "2:11", "an array of 1 to");
  expectRefused("[tls]\nclients = [\"a\\u0000\"]\n", "2:12", "control characters");
  expectRefused("[tls]\nclients = [\"a\"]\nclient-certificates = false\n", "3:23", "take this line out");
  expectRefused("[tls]\ncertificate = \"x\"\n", "2:1", "no setting 'certificate' in [tls]");
  expectRefused("[tls.imports]\nkeys = \"/k\"\n", "1:1", "belong together");
  expectRefused("[tls.imports]\nkeys = \"/k\"\nuser = \"a\"\ndirectory = \"/d\"\n", "1:1",
                "certificates and a key");
  expectRefused("[tls.imports]\nverify-name = \"no\"\n", "2:15", "true or false");
  expectRefused("tls = 1\n", "1:7", "write [tls]");
}

// Such a character is read as a question mark: the path would be another one.
TEST(SecuritySettings, ACharacterBeyondAsciiMustBeEscaped) {
  expectRefused("[tls]\ndirectory = \"/\xc3\xa4\"\n", "2:13", "\\uXXXX");
  expectRefused("[exports.\"\xc3\xa4\"]\nallow = [\"::1\"]\n", "1:10", "\\uXXXX");
  EXPECT_EQ(read("[tls]\n# \xc3\xa4\ndirectory = \"/a?\"\n").tls.directory, "/a?");
  EXPECT_EQ(read("[tls]\ndirectory = \"/a\" # \xc3\xa4\n").tls.directory, "/a");
}

TEST(AllowLists, AreReadForTheServerAndForExports) {
  const Configuration configuration = read(
      "[server]\nallow = [\"192.0.2.0/24\", \"::1\"]\n"
      "[exports.disk]\nallow = [\"127.0.0.1\"]\n"
      "[exports.\"a \\u00e4\"]\nallow = [\"::/0\"]\n");
  EXPECT_EQ(configuration.allow, (AllowList{*Network::parse("192.0.2.0/24"), *Network::parse("::1")}));
  ASSERT_EQ(configuration.exportAllow.size(), 2U);
  EXPECT_EQ(configuration.exportAllow.at("disk"), AllowList{*Network::parse("127.0.0.1")});
  EXPECT_TRUE(configuration.exportAllow.contains("a \xc3\xa4"));
}

TEST(AllowLists, WhatMakesNoSenseIsRefused) {
  expectRefused("[server]\nallow = \"::1\"\n", "2:9", "an array");
  expectRefused("[server]\nallow = []\n", "2:9", "an array");
  expectRefused("[server]\nallow = [1]\n", "2:10", "put it in quotes");
  expectRefused("[server]\nallow = [\"192.0.2.1/24\"]\n", "2:10", "is no network");
  expectRefused("[exports.disk]\n", "1:10", "allow list");
  expectRefused("[exports]\ndisk = 1\n", "2:1", "allow list");
  expectRefused("[exports.disk]\nallow = [\"::1\"]\nsize = 1\n", "3:1", "no setting 'size'");
}

}  // namespace
}  // namespace Nbdd
