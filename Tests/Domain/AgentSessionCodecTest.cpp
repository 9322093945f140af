// SPDX-License-Identifier: Apache-2.0
#include "Domain/AgentSessionCodec.h"

#include <gtest/gtest.h>

#include <limits>
#include <nlohmann/json.hpp>

#include "Domain/StrictCodec.h"
#include "Domain/UsageMetricsCodec.h"

namespace vimbrel {
namespace {

AgentSession fullSession() {
  AgentSession session;
  session.id = "sess-01";
  session.agentType = AgentType::opencode;
  session.state = AgentState::waiting;
  session.startedAt = instantFromUnixSeconds(1769853600);
  session.lastEventAt = instantFromUnixSeconds(1769853660);
  session.pid = 4242;
  session.cwd = "/tmp/project";
  session.hostAppName = "OpenCode";
  session.lastEventDescription = "State: Waiting via Plugin";
  session.usageMetrics = UsageMetrics{.inputTokens = 7,
                                      .cachedTokens = 5,
                                      .totalTokens = 12,
                                      .contextWindow = 200000,
                                      .sessionCostEstimateUSD = 0.25,
                                      .recordedAt = instantFromUnixSeconds(1769853650)};
  session.integrationType = IntegrationType::plugin;
  session.confidence = 0.6;
  return session;
}

TEST(AgentSessionCodec, writesTheKeysInOrderAndReadsThemBack) {
  const auto text = toJson(fullSession(), DateCoding::iso8601).dump();
  EXPECT_EQ(
      text,
      R"({"id":"sess-01","agentType":"opencode","state":"waiting","startedAt":"2026-01-31T10:00:00Z",)"
      R"("lastEventAt":"2026-01-31T10:01:00Z","pid":4242,"cwd":"/tmp/project","hostAppName":"OpenCode",)"
      R"("lastEventDescription":"State: Waiting via Plugin","usageMetrics":{"inputTokens":7,)"
      R"("cachedTokens":5,"totalTokens":12,"contextWindow":200000,"sessionCostEstimateUSD":0.25,)"
      R"("recordedAt":"2026-01-31T10:00:50Z"},"integrationType":"plugin","confidence":0.6})");
  EXPECT_EQ(agentSessionFromJson(*parseJson(text), DateCoding::iso8601), fullSession());

  AgentSession bare;
  bare.id = "b";
  const auto document = toJson(bare, DateCoding::referenceSeconds);
  EXPECT_EQ(document.dump(), R"({"id":"b","agentType":"custom","state":"unknown","startedAt":-978307200.0,)"
                             R"("lastEventAt":-978307200.0,"integrationType":"process","confidence":0.0})");
  EXPECT_EQ(agentSessionFromJson(document, DateCoding::referenceSeconds), bare);
}

TEST(AgentSessionCodec, refusesWhatIsMissingMistypedOrUnknown) {
  using nlohmann::json;
  constexpr auto dates = DateCoding::iso8601;
  const json valid = toJson(fullSession(), dates);
  requireStrictReading(valid, toJson(AgentSession{}, dates),
                       [](const json& read) { return agentSessionFromJson(read, dates).has_value(); });
  const std::tuple<const char*, json, const char*> rows[] = {
      {"state", "busy", R"(session: "state" is not a known value)"},
      {"agentType", "Claude", R"(session: "agentType" is not a known value)"},
      {"integrationType", "lifecycleHook", R"(session: "integrationType" is not a known value)"},
      {"lastEventAt", "yesterday", R"(session: "lastEventAt" is not an ISO 8601 date)"},
      {"pid", 2147483648, R"(session: "pid" is out of range)"},
      {"pid", -2147483649, R"(session: "pid" is out of range)"},
      {"pid", 1.5, R"(session: "pid" is not a whole number)"},
      {"usageMetrics", {{"inputTokens", 1}}, R"(usage metrics: "recordedAt" is missing)"},
  };
  for (const auto& [key, value, error] : rows) {
    auto document = valid;
    document[key] = value;
    const auto decoded = agentSessionFromJson(document, dates);
    ASSERT_FALSE(decoded) << error;
    EXPECT_EQ(decoded.error().text, error);
  }
  auto extended = valid;
  extended["later"] = 1;
  EXPECT_TRUE(agentSessionFromJson(extended, dates));
}

TEST(UsageMetrics, addUpWhatCountsAndSaturate) {
  constexpr auto most = std::numeric_limits<std::int64_t>::max();
  constexpr auto least = std::numeric_limits<std::int64_t>::min();
  using Count = std::optional<std::int64_t>;
  struct Row {
    Count total, input, output, reasoning, expected;
  };
  const Row rows[] = {
      {{}, {}, {}, {}, {}},         {0, 5, 5, 5, 0},
      {{}, 100, 50, 10, 160},       {{}, {}, {}, 1, 1},
      {{}, 5, -5, {}, {}},          {{}, most, 1, 1, most},
      {{}, least, least, most, {}}, {{}, most, most, least, most - 1},
  };
  for (const auto& [total, input, output, reasoning, expected] : rows) {
    // What is cached is never part of it.
    const UsageMetrics metrics{.inputTokens = input,
                               .outputTokens = output,
                               .cachedTokens = 1000,
                               .reasoningTokens = reasoning,
                               .totalTokens = total};
    EXPECT_EQ(metrics.effectiveTotalTokens(), expected);
  }
}

}  // namespace
}  // namespace vimbrel
