#include "control/dispatcher.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "control/definition.h"
#include "control/limits.h"
#include "tests/control/fake_service.h"

namespace Control {
namespace {

using nlohmann::json;
using Testing::FakeService;

class DispatcherTest : public ::testing::Test {
 protected:
  /// What became of `message`, which must be decided within the call.
  Outcome dispatch(std::string_view message) {
    std::optional<Outcome> outcome;
    dispatcher.dispatch(message, [&](Outcome result) {
      EXPECT_FALSE(outcome.has_value()) << "a second outcome";
      outcome = std::move(result);
    });
    EXPECT_TRUE(outcome.has_value());
    return outcome.value_or(Outcome{});
  }

  json reply(std::string_view message) {
    const Outcome outcome = dispatch(message);
    EXPECT_FALSE(outcome.close);
    return json::parse(outcome.reply);
  }

  static std::string call(const std::string& method, const json& parameters) {
    return json{{"method", "org.talvek.NBD." + method}, {"parameters", parameters}}.dump();
  }

  FakeService service;
  Dispatcher dispatcher{service, {.vendor = "V", .product = "P", .version = "1", .url = "U"}};
};

TEST_F(DispatcherTest, CallsTheOperationAndRepliesWithItsAnswer) {
  EXPECT_EQ(reply(call("ExportEnable", {{"id", 3}})), json::parse(R"({"parameters": {}})"));
  EXPECT_EQ(reply(call("ExportList", json::object())),
            json::parse(R"({"parameters": {"ids": [1, 4294967295]}})"));
  EXPECT_EQ(service.calls, (std::vector<std::string>{"exportEnable 3", "exportList"}));
}

TEST_F(DispatcherTest, ParametersMayBeLeftOutWhereNoneAreNeeded) {
  EXPECT_EQ(reply(R"({"method":"org.talvek.NBD.ServerStop"})"), json::parse(R"({"parameters": {}})"));
  EXPECT_EQ(reply(R"({"method":"org.talvek.NBD.ServerStop","parameters":null})"),
            json::parse(R"({"parameters": {}})"));
}

TEST_F(DispatcherTest, OmittedAndNullFieldsStandForTheirDefaults) {
  reply(call("ExportAdd", {{"descriptor", {{"node", "/n"}, {"name", nullptr}, {"elemSize", nullptr}}}}));
  EXPECT_EQ(service.addedExport, (ExportDescriptor{.name = {}, .node = "/n"}));
  reply(call("ExportDisable", {{"id", 1}}));
  EXPECT_EQ(service.calls.back(), "exportDisable 1");
}

TEST_F(DispatcherTest, UnknownFieldsAreIgnored) {
  reply(call("ExportDisable", {{"id", 1}, {"force", true}, {"soon", {{"a", 1}}}}));
  EXPECT_EQ(service.calls.back(), "exportDisable 1 force");
}

TEST_F(DispatcherTest, EveryBitOfACounterSurvives) {
  const json statistics = reply(call("ExportGetStatistics", {{"id", 1}}));
  EXPECT_EQ(statistics["parameters"]["statistics"]["rx"]["bytesTransTransferred"], 18446744073709551615U);
  reply(R"({"method":"org.talvek.NBD.ExportAdd",
            "parameters":{"descriptor":{"node":"/n","elemCount":18446744073709551615}}})");
  EXPECT_EQ(service.addedExport.elemCount, 18446744073709551615U);
}

struct WrongParameter {
  const char* method;
  const char* parameters;
  const char* complaint;
};

class WrongParameterTest : public DispatcherTest, public ::testing::WithParamInterface<WrongParameter> {};

TEST_P(WrongParameterTest, IsNamedAndCallsNothing) {
  const auto& [method, parameters, complaint] = GetParam();
  const json answer = reply(call(method, json::parse(parameters)));
  EXPECT_EQ(answer["error"], "org.varlink.service.InvalidParameter");
  EXPECT_EQ(answer["parameters"]["parameter"], complaint);
  EXPECT_TRUE(service.calls.empty());
}

INSTANTIATE_TEST_SUITE_P(
    All, WrongParameterTest,
    ::testing::Values(WrongParameter{"ExportInfo", R"({})", "id"},
                      WrongParameter{"ExportInfo", R"({"id": null})", "id"},
                      WrongParameter{"ExportInfo", R"({"id": "1"})", "id"},
                      WrongParameter{"ExportInfo", R"({"id": -1})", "id"},
                      WrongParameter{"ExportInfo", R"({"id": 1.0})", "id"},
                      WrongParameter{"ExportInfo", R"({"id": 1e0})", "id"},
                      WrongParameter{"ExportInfo", R"({"id": 4294967296})", "id"},
                      WrongParameter{"ExportInfo", R"({"id": [1]})", "id"},
                      WrongParameter{"ExportDisable", R"({"id": 1, "force": 1})", "force"},
                      WrongParameter{"ExportDisable", R"({"id": 1, "force": "true"})", "force"},
                      WrongParameter{"ExportAdd", R"({"descriptor": 5})", "descriptor"},
                      WrongParameter{"ExportAdd", R"({"descriptor": {}})", "descriptor.node"},
                      WrongParameter{"ExportAdd", R"({"descriptor": {"node": 5}})", "descriptor.node"},
                      WrongParameter{"ExportAdd", R"({"descriptor": {"node": "/", "flags": "readOnly"}})",
                                     "descriptor.flags"},
                      WrongParameter{"ExportAdd", R"({"descriptor": {"node": "/", "flags": ["readonly"]}})",
                                     "descriptor.flags"},
                      WrongParameter{"ExportAdd",
                                     R"({"descriptor": {"node": "/", "elemCount": 18446744073709551616}})",
                                     "descriptor.elemCount"},
                      WrongParameter{"ServerUnreserveRemote",
                                     R"({"endpoint": {"address": "::1", "port": 65536}})", "endpoint.port"},
                      WrongParameter{"ServerReserveRemote",
                                     R"({"request": {"endpoint": {"address": ""}, "password": "",
                           "properties": [{"name": "a", "binary": "A==="}]}})",
                                     "request.properties.binary"},
                      WrongParameter{"ServerReserveRemote",
                                     R"({"request": {"endpoint": {"address": ""}, "password": "",
                           "properties": [{"name": "a", "number": 1, "text": "two values"}]}})",
                                     "request.properties"}));

TEST_F(DispatcherTest, AFailureCarriesItsCodeAndSentence) {
  service.failure = Failure{FailureCode::noSuchExport, "there is no export 1"};
  EXPECT_EQ(reply(call("ExportEnable", {{"id", 1}})), json::parse(R"({"error": "org.talvek.NBD.Failed",
                            "parameters": {"code": 32, "message": "there is no export 1"}})"));
}

TEST_F(DispatcherTest, ADroppedAnswerIsAnInternalError) {
  service.dropping = true;
  const json answer = reply(call("ExportEnable", {{"id", 1}}));
  EXPECT_EQ(answer["parameters"]["code"], static_cast<std::uint32_t>(FailureCode::internalError));
}

TEST_F(DispatcherTest, TellsWhichOperationHasFailedAndWhy) {
  const Failure failure{FailureCode::nodeNotFound, "/n does not exist"};
  service.failure = failure;
  const Outcome failed = dispatch(call("ExportEnable", {{"id", 1}}));
  ASSERT_TRUE(failed.refusal.has_value());
  EXPECT_EQ(failed.refusal->method, "ExportEnable");
  EXPECT_EQ(failed.refusal->failure, failure);
  const Outcome unseen = dispatch(R"({"method":"org.talvek.NBD.ServerStop","oneway":true})");
  ASSERT_TRUE(unseen.refusal.has_value())
      << "nobody waits for the reply, but the failure is one all the same";
  EXPECT_EQ(unseen.refusal->method, "ServerStop");

  service.failure.reset();
  EXPECT_FALSE(dispatch(call("ExportEnable", {{"id", 1}})).refusal.has_value());
  EXPECT_FALSE(dispatch(R"({"method":"org.talvek.NBD.Nothing"})").refusal.has_value());
  service.dropping = true;
  const Outcome dropped = dispatch(call("ExportRemove", {{"id", 1}}));
  ASSERT_TRUE(dropped.refusal.has_value());
  EXPECT_EQ(dropped.refusal->method, "ExportRemove");
  EXPECT_EQ(dropped.refusal->failure.code, FailureCode::internalError);
}

TEST_F(DispatcherTest, AnAnswerMayComeLater) {
  service.holding = true;
  std::optional<Outcome> outcome;
  dispatcher.dispatch(call("ExportEnable", {{"id", 1}}),
                      [&](Outcome result) { outcome = std::move(result); });
  ASSERT_FALSE(outcome.has_value());
  service.held.at(0)();
  ASSERT_TRUE(outcome.has_value());
  EXPECT_EQ(outcome->reply, R"({"parameters":{}})");
}

TEST_F(DispatcherTest, AOnewayCallIsDoneAndNotAnswered) {
  const Outcome outcome = dispatch(R"({"method":"org.talvek.NBD.ServerStop","oneway":true})");
  EXPECT_EQ(outcome.reply, "");
  EXPECT_FALSE(outcome.close);
  EXPECT_EQ(service.calls, std::vector<std::string>{"serverStop"});
  EXPECT_EQ(dispatch(R"({"method":"org.talvek.NBD.Nothing","oneway":true})").reply, "");
}

TEST_F(DispatcherTest, OneReplyIsEnoughForMore) {
  EXPECT_EQ(reply(R"({"method":"org.talvek.NBD.ServerStop","more":true})"),
            json::parse(R"({"parameters": {}})"));
}

TEST_F(DispatcherTest, WhatIsNotThereIsNamed) {
  EXPECT_EQ(reply(R"({"method":"org.talvek.NBD.Nothing"})"),
            json::parse(R"({"error":"org.varlink.service.MethodNotFound",
                            "parameters":{"method":"org.talvek.NBD.Nothing"}})"));
  EXPECT_EQ(
      reply(R"({"method":"org.example.Ping"})"),
      json::parse(
          R"({"error":"org.varlink.service.InterfaceNotFound","parameters":{"interface":"org.example"}})"));
  EXPECT_EQ(reply(R"({"method":"Ping"})")["error"], "org.varlink.service.InterfaceNotFound");
  EXPECT_EQ(reply(R"({"method":"org.varlink.service.Ping"})")["error"], "org.varlink.service.MethodNotFound");
  EXPECT_EQ(reply(R"({"method":"org.talvek.NBD.ServerStop","upgrade":true})")["error"],
            "org.varlink.service.MethodNotImplemented");
  EXPECT_TRUE(service.calls.empty());
}

TEST_F(DispatcherTest, TellsWhoItIs) {
  const json info = reply(R"({"method":"org.varlink.service.GetInfo"})");
  EXPECT_EQ(info, json::parse(R"({"parameters":{"vendor":"V","product":"P","version":"1","url":"U",
                                  "interfaces":["org.varlink.service","org.talvek.NBD"]}})"));
}

TEST_F(DispatcherTest, ShowsItsDefinitions) {
  const auto description = [&](const char* interface) {
    return reply(json{{"method", "org.varlink.service.GetInterfaceDescription"},
                      {"parameters", {{"interface", interface}}}}
                     .dump());
  };
  EXPECT_EQ(description("org.talvek.NBD")["parameters"]["description"], nbdDefinition());
  EXPECT_EQ(description("org.varlink.service")["parameters"]["description"], varlinkServiceDefinition());
  EXPECT_EQ(description("org.example")["error"], "org.varlink.service.InterfaceNotFound");
  EXPECT_EQ(reply(R"({"method":"org.varlink.service.GetInterfaceDescription"})")["error"],
            "org.varlink.service.InvalidParameter");
}

TEST_F(DispatcherTest, WhatIsNoCallEndsTheConnection) {
  const std::string deep =
      R"({"method":"a.B","x":)" + std::string(Limits::depth, '[') + std::string(Limits::depth, ']') + "}";
  for (const std::string& message :
       {std::string(), std::string("x"), std::string("[]"), std::string("{}"), std::string(R"({"method":5})"),
        std::string(R"({"method":"a.B","parameters":[]})"), std::string(R"({"method":"a.B","oneway":1})"),
        std::string("{\"method\":\"a.B\xFF\"}"), std::string(R"({"method":"a.B"}{})"), deep,
        std::string(60'000, '[')}) {
    const Outcome outcome = dispatch(message);
    EXPECT_TRUE(outcome.close) << message.substr(0, 80);
    const json answer = json::parse(outcome.reply);
    EXPECT_EQ(answer["error"], "org.talvek.NBD.Failed");
    EXPECT_EQ(answer["parameters"]["code"], static_cast<std::uint32_t>(FailureCode::protocolError));
  }
  EXPECT_TRUE(service.calls.empty());
}

TEST_F(DispatcherTest, BadUtf8IsSaidToBeIt) {
  const json answer = json::parse(dispatch("{\"method\":\"a.B\xC0\xAF\"}").reply);
  EXPECT_EQ(answer["parameters"]["message"], "the message is not valid UTF-8");
}

}  // namespace
}  // namespace Control
