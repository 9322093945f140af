// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/UsageExport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "AgentMonitoring/UsageStoreWorld.h"

namespace vimbrel {
namespace {

using testing::HasSubstr;
using testing::Not;

struct UsageExport : testing::Test {
  UsageStoreWorld world;

  UsageExport() { world.open(); }
  [[nodiscard]] std::string exported(UsageExportFormat format) const {
    return exportUsage(*world.store, format, world.time.now());
  }
  void record(AgentType agent, const std::string& session, const std::string& turnId,
              const std::string& model, std::int64_t input, std::optional<double> cost) {
    auto event = turn(session, turnId, input);
    event.agentType = agent;
    event.modelId = model;
    event.outputTokens = 7;
    event.costEstimateUSD = cost;
    ASSERT_TRUE(world.store->record(event));
  }
};

TEST_F(UsageExport, prometheusTextIsGolden) {
  record(AgentType::claude, "secret-session", "t1", "opus", 100, 0.25);
  record(AgentType::claude, "secret-session", "t2", "opus", 50, 0.5);
  record(AgentType::codex, "other-session", "t1", "a\"b\\c\nd", 1, std::nullopt);
  EXPECT_EQ(
      exported(UsageExportFormat::prometheus),
      R"(# HELP vimbrel_usage_tokens_total Tokens that the agents on this machine used, as each counts them.
# TYPE vimbrel_usage_tokens_total counter
vimbrel_usage_tokens_total{agent="claude",model="opus",kind="input"} 150
vimbrel_usage_tokens_total{agent="claude",model="opus",kind="output"} 14
vimbrel_usage_tokens_total{agent="codex",model="a\"b\\c\nd",kind="input"} 1
vimbrel_usage_tokens_total{agent="codex",model="a\"b\\c\nd",kind="output"} 7
# HELP vimbrel_usage_turns_total Turns that used tokens.
# TYPE vimbrel_usage_turns_total counter
vimbrel_usage_turns_total{agent="claude",model="opus"} 2
vimbrel_usage_turns_total{agent="codex",model="a\"b\\c\nd"} 1
# HELP vimbrel_usage_sessions_total Sessions that used tokens.
# TYPE vimbrel_usage_sessions_total counter
vimbrel_usage_sessions_total{agent="claude"} 1
vimbrel_usage_sessions_total{agent="codex"} 1
# HELP vimbrel_usage_cost_usd_total Estimated cost in US dollars, of the models whose price is known.
# TYPE vimbrel_usage_cost_usd_total counter
vimbrel_usage_cost_usd_total{agent="claude",model="opus"} 0.75
)");
}

TEST_F(UsageExport, openTelemetryRequestHoldsTheSamePoints) {
  const auto metricsOf = [](const std::string& text) {
    return nlohmann::json::parse(text)["resourceMetrics"][0]["scopeMetrics"][0]["metrics"];
  };
  EXPECT_TRUE(metricsOf(exported(UsageExportFormat::otlpJson)).empty());
  record(AgentType::claude, "secret-session", "t1", "opus", 9'007'199'254'740'993, 0.25);
  const auto text = exported(UsageExportFormat::otlpJson);
  EXPECT_THAT(text, Not(HasSubstr("secret-session")));
  const auto metrics = metricsOf(text);
  ASSERT_EQ(metrics.size(), 4U);
  EXPECT_EQ(metrics[0]["name"], "vimbrel.usage.tokens");
  EXPECT_EQ(metrics[0]["sum"]["isMonotonic"], true);
  const auto& point = metrics[0]["sum"]["dataPoints"][0];
  EXPECT_EQ(point["asInt"], "9007199254740993") << "no 64-bit float in between";
  EXPECT_EQ(point["timeUnixNano"], "1763200000000000000");
  EXPECT_EQ(metrics[3]["sum"]["dataPoints"][0]["asDouble"], 0.25);
}

TEST_F(UsageExport, namesOfModelsAreBoundedHoweverManyALogInvents) {
  for (int i = 0; i < 200; ++i) {
    record(AgentType::claude, "s", "t" + std::to_string(i), "model" + std::to_string(i), 1, std::nullopt);
  }
  record(AgentType::claude, "s", "again", "model150", 1, std::nullopt);
  record(AgentType::claude, "s", "long", std::string(10'000, 'm'), 1, std::nullopt);
  const auto text = exported(UsageExportFormat::prometheus);
  EXPECT_LT(text.size(), 30'000U);
  EXPECT_THAT(text, HasSubstr("turns_total{agent=\"claude\",model=\"model150\"} 2\n"));
  std::int64_t turns = 0;
  for (std::size_t at = 0; (at = text.find("vimbrel_usage_turns_total{", at)) != text.npos; ++at) {
    turns += std::stol(text.substr(text.find("} ", at) + 2));
  }
  EXPECT_EQ(turns, 202) << "what is put together is still counted";
}

}  // namespace
}  // namespace vimbrel
