#include "nbdd/service/server_properties.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <string>
#include <thread>

#include "control/methods.h"
#include "talvek_version.h"
#include "tests/support/raw_client.h"
#include "tests/support/service_process.h"

namespace Nbdd {
namespace {

using namespace std::chrono_literals;
using ::Testing::ServiceProcess;
namespace Methods = Control::Methods;

/// The value of the one entry called `name`; an empty entry of that name if there is none, or more.
Control::VariantEntry find(const Control::Variant& properties, std::string_view name) {
  const auto named = [name](const Control::VariantEntry& entry) { return entry.name == name; };
  if (std::ranges::count_if(properties, named) != 1) {
    ADD_FAILURE() << name << " is not there once";
    return {};
  }
  return *std::ranges::find_if(properties, named);
}

bool has(const Control::Variant& properties, std::string_view name) {
  return std::ranges::find(properties, name, &Control::VariantEntry::name) != properties.end();
}

template <class T>
T value(const Control::Variant& properties, std::string_view name) {
  const auto entry = find(properties, name);
  const T* const found = std::get_if<T>(&entry.value);
  EXPECT_NE(found, nullptr) << name << " has another type";
  return found == nullptr ? T{} : *found;
}

std::uint64_t number(const Control::Variant& properties, std::string_view name) {
  return value<std::uint64_t>(properties, name);
}
std::string text(const Control::Variant& properties, std::string_view name) {
  return value<std::string>(properties, name);
}
Control::Variant nested(const Control::Variant& properties, std::string_view name) {
  return value<Control::Variant>(properties, name);
}

const HostFacts host{.hostName = "storage", .kernel = "6.1.0 x86_64", .process = 4711, .openFiles = 1024};

TEST(ServerProperties, AStoppedServerListensNowhere) {
  const Control::Variant properties = serverProperties(
      host, {.uuid = "the-uuid", .uptime = 61s, .storageEngine = "threads", .eventLoops = 2});
  EXPECT_EQ(text(properties, "version"), talvekVersion);
  EXPECT_EQ(text(properties, "uuid"), "the-uuid");
  EXPECT_EQ(text(properties, "host name"), "storage");
  EXPECT_EQ(text(properties, "platform"), "Linux");
  EXPECT_EQ(text(properties, "kernel"), "6.1.0 x86_64");
  EXPECT_EQ(number(properties, "process"), 4711U);
  EXPECT_EQ(number(properties, "uptime seconds"), 61U);
  EXPECT_EQ(text(properties, "server"), "stopped");
  EXPECT_EQ(text(properties, "storage engine"), "threads");
  EXPECT_EQ(number(properties, "event loops"), 2U);
  for (const char* const name : {"port", "listens on", "reached at"}) EXPECT_FALSE(has(properties, name));
}

TEST(ServerProperties, AListeningServerNamesItsAddresses) {
  const Control::Variant properties =
      serverProperties(host, {.activity = ServerActivity::listening,
                              .listening = {{"0.0.0.0", 10810}, {"::", 10810}},
                              .reachableAt = {{.endpoint = {"192.0.2.7", 10810}, .interface = "eth0"},
                                              {.endpoint = {"2001:db8::7", 10810}, .interface = "eth0"},
                                              {.endpoint = {"198.51.100.1", 10810}, .interface = {}}}});
  EXPECT_EQ(text(properties, "server"), "started");
  EXPECT_EQ(number(properties, "port"), 10810U);
  EXPECT_EQ(nested(properties, "listens on"),
            (Control::Variant{{"address", std::string("0.0.0.0")}, {"address", std::string("::")}}));
  EXPECT_EQ(nested(properties, "reached at"), (Control::Variant{{"eth0", std::string("192.0.2.7")},
                                                                {"eth0", std::string("2001:db8::7")},
                                                                {"address", std::string("198.51.100.1")}}));
}

TEST(ServerProperties, EveryActivityHasItsWords) {
  EXPECT_EQ(text(serverProperties(host, {.activity = ServerActivity::waiting}), "server"),
            "waiting for its address or port");
  EXPECT_EQ(text(serverProperties(host, {.activity = ServerActivity::stopping}), "server"), "stopping");
}

TEST(ServerProperties, WhatIsHeldAndServedIsCounted) {
  const Control::Variant properties = serverProperties(
      host,
      {.exports = 5, .servedExports = 3, .clients = 7, .imports = 4, .usedImports = 2, .connections = 9});
  EXPECT_EQ(nested(properties, "exports"),
            (Control::Variant{
                {"held", std::uint64_t{5}}, {"served", std::uint64_t{3}}, {"clients", std::uint64_t{7}}}));
  EXPECT_EQ(nested(properties, "imports"),
            (Control::Variant{{"held", std::uint64_t{4}}, {"enabled", std::uint64_t{2}}}));
  EXPECT_EQ(number(properties, "connections"), 9U);
}

TEST(ServerProperties, LimitsAreTold) {
  const Control::Variant limits = nested(serverProperties(host, {}), "limits");
  EXPECT_EQ(number(limits, "open files"), 1024U);
  for (const char* const name :
       {"exports", "imports", "connections", "control connections", "bytes of one request",
        "waiting requests of one connection", "waiting bytes of one connection",
        "waiting bytes of one event loop", "handshake seconds"})
    EXPECT_GT(number(limits, name), 0U) << name;
}

TEST(HostFacts, AreThoseOfThisHostAndProcess) {
  const HostFacts facts = hostFacts();
  std::array<char, 256> name{};
  ASSERT_EQ(::gethostname(name.data(), name.size()), 0);
  EXPECT_EQ(facts.hostName, name.data());
  EXPECT_EQ(facts.process, static_cast<std::uint64_t>(::getpid()));
  EXPECT_GT(facts.openFiles, 0U);
  EXPECT_NE(facts.kernel.find(' '), std::string::npos);
}

// Of a running service.

class RunningServerProperties : public ::testing::Test {
 protected:
  Control::Variant properties() { return client.call(Methods::serverGetNamedProperties).value(); }

  Control::Client started() {
    service.start();
    return service.connect();
  }

  ServiceProcess service;
  Control::Client client = started();
};

TEST_F(RunningServerProperties, FollowTheServer) {
  EXPECT_EQ(text(properties(), "server"), "stopped");
  EXPECT_EQ(number(properties(), "process"), static_cast<std::uint64_t>(service.process()));
  EXPECT_EQ(text(properties(), "uuid").size(), 36U);
  ASSERT_TRUE(client.call(Methods::serverStart).has_value());
  const Control::Variant started = properties();
  EXPECT_EQ(text(started, "server"), "started");
  EXPECT_EQ(number(started, "port"), service.port());
  EXPECT_EQ(nested(started, "listens on"),
            (Control::Variant{{"address", std::string("127.0.0.1")}, {"address", std::string("::1")}}));
  EXPECT_TRUE(nested(started, "reached at").empty()) << "loopback is out of other hosts' reach";
  ASSERT_TRUE(client.call(Methods::serverStop).has_value());
  EXPECT_EQ(text(properties(), "server"), "stopped");
  EXPECT_FALSE(has(properties(), "listens on"));
}

TEST_F(RunningServerProperties, CountWhatIsHeldAndServed) {
  ASSERT_TRUE(client.call(Methods::serverStart).has_value());
  Control::ExportDescriptor descriptor{.name = "first", .node = service.files().sparse("first", 4096)};
  const auto first = client.call(Methods::exportAdd, descriptor);
  ASSERT_TRUE(first.has_value());
  descriptor = {.name = "second", .node = service.files().sparse("second", 4096)};
  ASSERT_TRUE(client.call(Methods::exportAdd, descriptor).has_value());
  ASSERT_TRUE(client.call(Methods::exportEnable, *first).has_value());
  Wire::RawClient reader(service.port());
  reader.enter("first");
  Wire::RawClient another(service.port());
  another.enter("first");
  Wire::RawClient inHandshake(service.port());
  inHandshake.receiveGreeting();
  EXPECT_EQ(nested(properties(), "exports"),
            (Control::Variant{
                {"held", std::uint64_t{2}}, {"served", std::uint64_t{1}}, {"clients", std::uint64_t{2}}}));
  EXPECT_EQ(number(properties(), "connections"), 3U);
}

TEST_F(RunningServerProperties, TellHowLongTheServiceIsUp) {
  EXPECT_LT(number(properties(), "uptime seconds"), 3600U);
  const auto deadline = std::chrono::steady_clock::now() + 20s;
  while (number(properties(), "uptime seconds") == 0 && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(10ms);
  EXPECT_GT(number(properties(), "uptime seconds"), 0U);
}

TEST(ServerPropertiesWithThreads, NameTheStorageEngineThatIsUsed) {
  ServiceProcess service;
  service.setVariable("NBDD_IO", "threads");
  service.start();
  Control::Client client = service.connect();
  const Control::Variant properties = client.call(Methods::serverGetNamedProperties).value();
  EXPECT_EQ(text(properties, "storage engine"), "threads");
  EXPECT_EQ(number(properties, "event loops"), std::max(1U, std::thread::hardware_concurrency()));
}

}  // namespace
}  // namespace Nbdd
