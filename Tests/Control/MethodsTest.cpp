// SPDX-License-Identifier: Apache-2.0
// The control methods of the application on virtual time, without a socket.
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

/// A connection that the test ends.
struct Peer final : RpcPeer {
  void subscribe() override {}
  void unsubscribe() override {}
  void end() { kept_.clear(); }
};

std::shared_ptr<UsageCoordinator> usageWithoutStore(VirtualTime& time) {
  UsageCoordinator::Parts parts;
  parts.mainQueue = time.mainQueue();
  parts.workQueue = time.makeQueue("usage", QueueHome::background);
  parts.openStore = [] { return std::unexpected("not here"); };
  return std::make_shared<UsageCoordinator>(std::move(parts), time);
}

/// Every method of a running application whose usage store could not be opened.
struct ControlMethods : testing::Test {
  CapturedLog quiet;
  SimulatedApplication world{SimulatedWorld{}, {}, usageWithoutStore};
  ControlledApplication application{.coordinator = world.app().coordinator(),
                                    .platform = world.app().platform(),
                                    .clock = world.time(),
                                    .version = "1",
                                    .deepHold = &world.app().deepHold(),
                                    .commandHolds = &world.app().commandHolds(),
                                    .presentation = &world.app().presentation(),
                                    .usage = world.app().usage().get()};
  ControlServer server{world.time().mainQueue(), world.time()};
  Peer peer;
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
  void TearDown() override { EXPECT_FALSE(world.violation()) << *world.violation(); }

  /// The result of a method, or its error.
  json ask(const std::string& method, const json& params = json::object()) {
    json answer;
    const json request{{"jsonrpc", "2.0"}, {"id", 1}, {"method", method}, {"params", params}};
    server.methods().handle(request.dump(), peer,
                            [&](const std::string& line) { answer = json::parse(line); });
    world.run(100ms);
    return answer.contains("result") ? answer["result"] : answer["error"];
  }
  json stateAfter(std::chrono::seconds time) {
    world.run(time);
    return ask("status");
  }
  void quota(double used) {
    AccountQuotaBudget quota;
    quota.usedPercent = used;
    quota.percentageRemaining = 100 - used;
    application.usage->setMeasuredBudget(AgentType::codex, {.quota = quota, .source = "test"});
  }
};

TEST_F(ControlMethods, showRowsBudgetsAndTheHelper) {
  world.hook(AgentType::claude, AgentState::working, "a");
  world.run(1s);
  world.hook(AgentType::claude, AgentState::waiting, "b");
  quota(92);
  const auto state = stateAfter(6s);
  ASSERT_EQ(state["agentFamilies"].size(), 2U) << "one at work, one with a recent budget";
  const auto& claude = state["agentFamilies"][0];
  EXPECT_EQ(claude["sessions"], json({"b", "a"})) << "newest first; the sessions stand in \"sessions\"";
  EXPECT_EQ(claude["hosts"][0]["id"], "claude_Terminal");
  EXPECT_EQ(state["agentFamilies"][1]["lowBudgetAlert"], state["lowBudgetAlerts"]["codex"]);
  EXPECT_EQ(state["lowBudgetAlerts"]["codex"]["metricType"], "quota");
  EXPECT_EQ(state["budgets"][0]["quota"]["value"]["percentageRemaining"], 8.0);
  EXPECT_EQ(state["helperStatus"]["isDeepHoldActive"], true);
}

TEST_F(ControlMethods, showAChangeOnlyWhenSomethingDiffers) {
  int familyChanges = 0;
  int moodChanges = 0;
  const auto families =
      application.presentation->agentFamilies().subscribe([&familyChanges] { ++familyChanges; });
  const auto mood =
      application.presentation->dominantVisualState().subscribe([&moodChanges] { ++moodChanges; });
  world.hook(AgentType::claude, AgentState::working);
  world.run(10min);
  EXPECT_EQ(familyChanges, 1) << "an evaluation a second rebuilds nothing";
  EXPECT_EQ(moodChanges, 1);
  quota(10);
  world.settle();
  EXPECT_EQ(familyChanges, 2);
  ASSERT_TRUE(world.app().settings().setMasterEnabled(false));
  EXPECT_EQ(stateAfter(0s)["visualState"], "error");
  EXPECT_EQ(moodChanges, 2);
  EXPECT_EQ(stateAfter(61min)["agentFamilies"].size(), 1U) << "the budget alone shows no row after an hour";
}

TEST_F(ControlMethods, holdWhileTheConnectionLives) {
  ASSERT_TRUE(world.app().settings().setDeepLidProtectionEnabled(false));
  EXPECT_EQ(stateAfter(1s)["closedLid"]["cover"], "off");
  const auto begun = ask("holdWhile", {{"command", "make"}, {"seconds", 600}, {"lid", true}});
  EXPECT_EQ(begun["statusDescription"], "Active (0 working agents) \u2014 Running make");
  const auto held = stateAfter(7s);
  EXPECT_EQ(held["closedLid"]["cover"], "covered");
  EXPECT_EQ(held["closedLid"]["coveredBy"], "the system's helper");
  EXPECT_TRUE(parseIso8601(held["closedLid"]["until"].get<std::string>()));
  EXPECT_EQ(held["commandHolds"][0]["command"], "make");
  EXPECT_EQ(ask("why")["closedLid"]["cover"], "covered");
  peer.end();
  EXPECT_FALSE(stateAfter(1s)["isHolding"].get<bool>());
  EXPECT_EQ(stateAfter(6s)["closedLid"]["cover"], "off");
}

TEST_F(ControlMethods, boundTheHoldsOfAConnection) {
  const json params{{"command", "make"}, {"seconds", 5}};
  for (int i = 0; i < 64; ++i) EXPECT_FALSE(ask("holdWhile", params).contains("code")) << i;
  EXPECT_TRUE(ask("holdWhile", params).contains("code"));
}

TEST_F(ControlMethods, sayWhatIsWrongWithTheirParameters) {
  const auto in = [this](double seconds) { return formatIso8601(world.time().now() + Seconds{seconds}); };
  const auto hold = [](const json& command, const json& seconds) {
    return json{{"command", command}, {"seconds", seconds}};
  };
  struct Row {
    const char* method;
    json params;
    const char* says;
  };
  std::vector<Row> rows{
      {"pause", {{"seconds", "60"}}, "\"seconds\" is not a number"},
      {"pause", json::object(), "give either \"seconds\" or \"until\""},
      {"pause", {{"seconds", 60}, {"until", in(60)}}, "give either \"seconds\" or \"until\""},
      {"pause", {{"seconds", 0}}, "more than 0 and at most a year"},
      {"pause", {{"until", "tomorrow"}}, "ISO 8601"},
      {"pause", {{"until", in(-1)}}, "in the future, within a year"},
      {"pause", {{"until", in(4e7)}}, "in the future, within a year"},
      {"hold", {{"on", 1}}, "\"on\" is not"},
      {"holdWhile", {{"command", "make"}, {"seconds", 60}, {"lid", "yes"}}, "\"lid\" is not"},
      {"holdWhile", hold("", 5), "\"command\""},
      {"holdWhile", hold(std::string(201, 'x'), 5), "\"command\""},
      {"holdWhile", hold("make", 0), "\"seconds\""},
      {"holdWhile", hold("make", 1e9), "\"seconds\""},
      {"history", {{"since", 7}}, "\"since\" is not a string"},
      {"history", {{"until", "monday"}}, "ISO 8601 times"},
      {"history", {{"since", "monday"}}, "ISO 8601 times"},
      {"usage.report", {{"by", 7}}, "\"by\" is not a string"},
      {"usage.report", {{"by", "yearly"}}, "\"by\" is one of"},
      {"usage.report", {{"timezone", "Europe/Atlantis"}}, "there is no time zone Europe/Atlantis"},
      {"usage.report", {{"since", "monday"}}, "since takes a day such as 2026-01-31"},
      {"usage.report", {{"until", "2026-02-30"}}, "until takes a day such as 2026-01-31"},
      {"usage.report", {{"agent", "oracle"}}, "there is no agent oracle"},
      {"usage.export", {{"format", "xml"}}, "\"format\" is one of json, prometheus, otlp-json"},
      {"usage.export", {{"format", 1}}, "\"format\" is not a string"},
      {"usage.import", {{"all", "yes"}}, "\"all\" is not"},
      {"budgets.set", {{"amountUSD", 1}}, "\"period\" is missing"},
      {"budgets.remove", json::object(), "\"period\" is missing"},
      {"statusLine.report", {{"agent", "claude"}, {"costUSD", "1"}}, "\"costUSD\" is not a number"},
      {"statusLine.report", {{"agent", "oracle"}}, "there is no such agent"},
      {"agents", {{"environment", 7}}, "\"environment\" is an object of texts"},
      {"agents.setup", {{"agent", 7}}, "\"agent\" is not a string"},
      {"agents.setup", {{"agent", "oracle"}}, "there is no such agent"},
      {"agents.setup", {{"agent", "claude"}, {"environment", {{"PATH", 7}}}}, "an object of texts"},
      {"agents.setup", {{"agent", "claude"}}, "vimbrel-relay is not installed beside this Vimbrel"},
      {"agents.trial", {{"session", 7}}, "\"session\" is not a string"},
      {"agents.trial", {{"session", ""}}, "1 to 200 bytes"},
      {"agents.trial", {{"session", std::string(201, 's')}}, "1 to 200 bytes"},
      {"agents.trial", {{"session", "known"}}, "there is such a session already"},
      {"statusLine.report", {{"agent", "claude"}}, "usage is not recorded"},
  };
  for (const auto* method : {"usage.today", "usage.report", "usage.export", "usage.reset", "usage.import",
                             "usage.importState", "budgets"}) {
    rows.push_back({method, json::object(), "usage is not recorded"});
  }
  world.hook(AgentType::claude, AgentState::idle, "known");
  world.settle();
  for (const auto& [method, params, says] : rows) {
    const auto refusal = ask(method, params);
    EXPECT_TRUE(refusal.value("message", "").contains(says)) << method << " " << params << ": " << refusal;
  }
}

}  // namespace
}  // namespace vimbrel
