// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "CapturedLog.h"
#include "Control/AgentMethods.h"
#include "Control/DeepHoldMethods.h"
#include "Control/HistoryMethods.h"
#include "Control/ProtectionMethods.h"
#include "Control/SettingsMethods.h"
#include "Control/StatusMethods.h"
#include "Control/UsageMethods.h"
#include "Simulation/SimulatedApplication.h"

namespace vimbrel {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;

struct SilentPeer final : RpcPeer {
  void subscribe() override {}
  void unsubscribe() override {}
};

/// Every method of a running application whose usage store could not be opened.
struct RefusedRequests : testing::Test {
  CapturedLog quiet;
  SimulatedApplication world;
  ControlledApplication application{.coordinator = world.app().coordinator(),
                                    .platform = world.app().platform(),
                                    .clock = world.time(),
                                    .version = "1",
                                    .deepHold = &world.app().deepHold(),
                                    .commandHolds = &world.app().commandHolds()};
  ControlServer server{world.time().mainQueue(), world.time()};
  SilentPeer peer;
  std::vector<Token> tokens;
  std::shared_ptr<void> agents;

  void SetUp() override {
    world.start();
    tokens.push_back(addStatusMethods(server, application));
    tokens.push_back(addDeepHoldMethods(server, application));
    addSettingsMethods(server, application);
    addProtectionMethods(server, application);
    addHistoryMethods(server, application);
    addUsageMethods(server, {}, world.time(), world.time().mainQueue());
    agents = addAgentMethods(server, application, world.time().mainQueue(), "");
  }
  /// What the answer says is wrong.
  std::string refusalOf(const std::string& method, const json& params) {
    std::string line;
    server.methods().handle(
        json{{"jsonrpc", "2.0"}, {"id", 1}, {"method", method}, {"params", params}}.dump(), peer,
        [&line](const std::string& answer) { line = answer; });
    world.run(100ms);
    const auto answer = json::parse(line, nullptr, false);
    return answer.is_object() && answer.contains("error") ? answer["error"]["message"].get<std::string>()
                                                          : "not refused: " + line;
  }
};

TEST_F(RefusedRequests, sayWhatIsWrongWithTheirParameters) {
  const auto in = [this](double seconds) { return formatIso8601(world.time().now() + Seconds{seconds}); };
  struct Row {
    const char* method;
    json params;
    const char* says;
  };
  const std::vector<Row> rows{
      {"pause", {{"seconds", "60"}}, "\"seconds\" is not a number"},
      {"pause", json::object(), "give either \"seconds\" or \"until\""},
      {"pause", {{"seconds", 60}, {"until", in(60)}}, "give either \"seconds\" or \"until\""},
      {"pause", {{"seconds", 0}}, "more than 0 and at most a year"},
      {"pause", {{"until", "tomorrow"}}, "ISO 8601"},
      {"pause", {{"until", in(-1)}}, "in the future, within a year"},
      {"pause", {{"until", in(4e7)}}, "in the future, within a year"},
      {"hold", {{"on", 1}}, "\"on\" is not"},
      {"holdWhile", {{"command", "make"}, {"seconds", 60}, {"lid", "yes"}}, "\"lid\" is not"},
      {"history", {{"since", 7}}, "\"since\" is not a string"},
      {"history", {{"since", "monday"}}, "ISO 8601 times"},
      {"history", {{"until", "monday"}}, "ISO 8601 times"},
      {"usage.report", {{"by", 7}}, "\"by\" is not a string"},
      {"usage.report", {{"by", "yearly"}}, "\"by\" is one of"},
      {"usage.report", {{"timezone", "Europe/Atlantis"}}, "there is no time zone Europe/Atlantis"},
      {"usage.report", {{"since", "monday"}}, "since takes a day such as 2026-01-31"},
      {"usage.report", {{"until", "2026-02-30"}}, "until takes a day such as 2026-01-31"},
      {"usage.report", {{"agent", "oracle"}}, "there is no agent oracle"},
      {"usage.export", {{"format", 1}}, "\"format\" is not a string"},
      {"usage.export", {{"format", "xml"}}, "\"format\" is one of json, prometheus, otlp-json"},
      {"usage.import", {{"all", "yes"}}, "\"all\" is not"},
      {"budgets.set", {{"amountUSD", 1}}, "\"period\" is missing"},
      {"budgets.remove", json::object(), "\"period\" is missing"},
      {"statusLine.report", {{"agent", "claude"}, {"costUSD", "1"}}, "\"costUSD\" is not a number"},
      {"statusLine.report", {{"agent", "oracle"}}, "there is no such agent"},
      {"agents", {{"environment", 7}}, "\"environment\" is an object of texts"},
      {"agents", {{"environment", {{"PATH", 7}}}}, "\"environment\" is an object of texts"},
      {"agents.setup", {{"agent", 7}}, "\"agent\" is not a string"},
      {"agents.setup", {{"agent", "oracle"}}, "there is no such agent"},
      {"agents.setup", {{"agent", "claude"}, {"environment", {{"PATH", 7}}}}, "an object of texts"},
      {"agents.setup", {{"agent", "claude"}}, "vimbrel-relay is not installed beside this Vimbrel"},
      {"agents.trial", {{"session", 7}}, "\"session\" is not a string"},
      {"agents.trial", {{"session", ""}}, "1 to 200 bytes"},
      {"agents.trial", {{"session", std::string(201, 's')}}, "1 to 200 bytes"},
      {"agents.trial", {{"session", "known"}}, "there is such a session already"},
  };
  world.hook(AgentType::claude, AgentState::idle, "known");
  world.settle();
  for (const auto& [method, params, says] : rows) {
    const auto refusal = refusalOf(method, params);
    EXPECT_TRUE(refusal.contains(says)) << method << " " << params << ": " << refusal;
  }
}

TEST_F(RefusedRequests, sayThatUsageIsNotRecordedWhenItIsNot) {
  for (const auto& [method, params] : {
           std::pair("usage.today", json::object()),
           std::pair("usage.report", json::object()),
           std::pair("usage.export", json::object()),
           std::pair("usage.reset", json::object()),
           std::pair("usage.import", json::object()),
           std::pair("usage.importState", json::object()),
           std::pair("budgets", json::object()),
           std::pair("statusLine.report", json{{"agent", "claude"}}),
       }) {
    EXPECT_TRUE(refusalOf(method, params).contains("usage is not recorded")) << method;
  }
}

}  // namespace
}  // namespace vimbrel
