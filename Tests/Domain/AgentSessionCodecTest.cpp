// SPDX-License-Identifier: Apache-2.0
#include "Domain/AgentSessionCodec.h"

#include <gtest/gtest.h>

#include <limits>
#include <nlohmann/json.hpp>

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
                                      .outputTokens = std::nullopt,
                                      .cachedTokens = 5,
                                      .cacheWriteTokens = std::nullopt,
                                      .reasoningTokens = std::nullopt,
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
  struct Row {
    const char* patch;  // merged over a valid record; null removes the key
    const char* error;
  };
  const Row rows[] = {
      {R"({"id":null})", R"(session: "id" is missing)"},
      {R"({"confidence":null})", R"(session: "confidence" is missing)"},
      {R"({"state":"busy"})", R"(session: "state" is not a known value)"},
      {R"({"agentType":"Claude"})", R"(session: "agentType" is not a known value)"},
      {R"({"integrationType":"lifecycleHook"})", R"(session: "integrationType" is not a known value)"},
      {R"({"startedAt":5})", R"(session: "startedAt" is not a string)"},
      {R"({"lastEventAt":"yesterday"})", R"(session: "lastEventAt" is not an ISO 8601 date)"},
      {R"({"pid":2147483648})", R"(session: "pid" is out of range)"},
      {R"({"pid":-2147483649})", R"(session: "pid" is out of range)"},
      {R"({"pid":1.5})", R"(session: "pid" is not a whole number)"},
      {R"({"cwd":7})", R"(session: "cwd" is not a string)"},
      {R"({"usageMetrics":[]})", "usage metrics: not a JSON object"},
      {R"({"usageMetrics":{"inputTokens":1}})", R"(usage metrics: "recordedAt" is missing)"},
  };
  const nlohmann::json valid = toJson(fullSession(), DateCoding::iso8601);
  for (const auto& row : rows) {
    auto document = valid;
    document.merge_patch(*parseJson(row.patch));
    // A patch inside "usageMetrics" must leave nothing of the valid one.
    if (parseJson(row.patch)->contains("usageMetrics")) {
      document["usageMetrics"] = (*parseJson(row.patch))["usageMetrics"];
    }
    const auto decoded = agentSessionFromJson(document, DateCoding::iso8601);
    ASSERT_FALSE(decoded) << row.patch;
    EXPECT_EQ(decoded.error().text, row.error);
  }
  auto extended = valid;
  extended["later"] = 1;
  EXPECT_TRUE(agentSessionFromJson(extended, DateCoding::iso8601));
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
  for (const auto& row : rows) {
    UsageMetrics metrics;
    metrics.totalTokens = row.total;
    metrics.inputTokens = row.input;
    metrics.outputTokens = row.output;
    metrics.reasoningTokens = row.reasoning;
    metrics.cachedTokens = 1000;  // never part of it
    EXPECT_EQ(metrics.effectiveTotalTokens(), row.expected);
  }
}

}  // namespace
}  // namespace vimbrel
