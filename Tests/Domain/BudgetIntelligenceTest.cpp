// SPDX-License-Identifier: Apache-2.0
#include "Domain/BudgetIntelligence.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <tuple>

#include "Domain/BudgetCodec.h"
#include "Domain/StrictCodec.h"

namespace vimbrel {
namespace {

using Context = BudgetMetric<ContextBudget>;
using Quota = BudgetMetric<AccountQuotaBudget>;

Context context(std::int64_t window, std::int64_t consumed) {
  return Context::known(ContextBudget::create(window, consumed), 1, "test");
}
Quota quota(double remaining) {
  return Quota::known(AccountQuotaBudget::create({.percentageRemaining = remaining}), 1, "test");
}

TEST(ContextBudget, keepsItsFiguresInRange) {
  const auto tiny = ContextBudget::create(0, 10);
  EXPECT_EQ(tiny.contextWindow(), 1);
  EXPECT_EQ(tiny.tokensRemaining(), 0);
  EXPECT_EQ(tiny.percentageUsed(), 100);
  const auto over = ContextBudget::create(200'000, 250'000);
  EXPECT_EQ(over.percentageRemaining(), 0);
  EXPECT_TRUE(over.isLow());
  EXPECT_EQ(ContextBudget::create(200'000, -5).tokensRemaining(), 200'000);
}

TEST(LowBudgetThreshold, warnsByTheWorseOfTheTwoAndPrefersTheQuota) {
  constexpr auto none = std::nullopt;
  const std::tuple<std::optional<double>, std::optional<double>, const char*> cases[] = {
      {20.01, none, ""},
      {20, none, "Context window is low (20% remaining)"},
      {19.5, none, "Context window is low (20% remaining)"},
      {10, none, "Context window is critically low (10% remaining)"},
      {none, 7, "Account quota is critically low (7% remaining)"},
      {5, none, "Context window is exhausted (5% remaining)"},
      {4, 8, "Context window is exhausted (4% remaining)"},
      {9, 8, "Account quota is critically low (8% remaining)"},
  };
  for (const auto& [context, quota, message] : cases) {
    const auto alert = LowBudgetThreshold::evaluate(context, quota);
    EXPECT_EQ(alert ? alert->message : "", message);
  }
}

TEST(BudgetTexts, areWrittenForPeople) {
  using Counts = std::vector<std::pair<std::int64_t, const char*>>;
  for (const auto& [count, text] :
       Counts{{-5, "-5"}, {999, "999"}, {1000, "1k"}, {1500, "2k"}, {1'000'000, "1M"}, {1'234'567, "1.2M"}}) {
    EXPECT_EQ(formatTokenCompact(count), text);
  }
  EXPECT_EQ((CostBudget{0.004, true}.formattedCost()), "<$0.01 est.");
  EXPECT_EQ((CostBudget{0, true}.formattedCost()), "$0.00 est.");
  EXPECT_EQ((CostBudget{0.005, false}.formattedCost()), "$0.01");
}

TEST(ProviderBudgetReport, saysInOneLineWhatIsLeft) {
  using Report = ProviderBudgetReport;
  const CostBudget cost{0.42, true};
  const auto most = context(200'000, 80'000);
  const std::string ready = "Idle · Ready for sessions";
  const std::tuple<Report, std::string, std::string> cases[] = {
      {{}, "Budget telemetry unavailable", ready},
      {{.sessionUsage = {.totalTokens = 1500}, .cost = cost},
       "2k tokens · $0.42 est.",
       "2k tokens · $0.42 est."},
      {{.context = most, .quota = quota(45), .cost = cost},
       "120k context left · 60% remaining · Quota 45% left · $0.42 est.",
       "120k context left · $0.42 est."},
      {{.context = most, .quota = quota(8)}, "8% quota left · Critically Low", "120k context left"},
      {{.context = context(100, 97), .quota = quota(18), .cost = cost},
       "18% quota left · Exhausted · $0.42 est.",
       "3 context left · $0.42 est."},
  };
  for (const auto& [fields, actionable, idle] : cases) {
    const auto report = Report::make(fields);
    EXPECT_EQ(report.actionableSummaryLine(), actionable);
    EXPECT_EQ(report.idleSummaryLine(), idle == ready ? ready : "Last session: " + idle);
  }
  EXPECT_EQ((Report{.quota = quota(12)}.actionableSummaryLine()), "12% quota left · Low")
      << "a report without an alert";
  EXPECT_EQ((Report{.agentType = AgentType::codex}.id()), "codex_global");
}

TEST(BudgetCodec, readsBackWhatItWroteAndForgivesOnlyWhatAMetricMayLack) {
  const auto full = ProviderBudgetReport::make(
      {.agentType = AgentType::codex,
       .sessionId = "s",
       .modelId = "m",
       .context = context(200, 190),
       .quota = Quota::known(AccountQuotaBudget::create({40, 60, 300, instantFromUnixSeconds(5e8), "pro"}),
                             0.5, "q"),
       .sessionUsage = {.inputTokens = 1, .recordedAt = instantFromUnixSeconds(7)},
       .cost = CostBudget{1, true},
       .lastUpdated = instantFromUnixSeconds(9),
       .source = "codex"});
  for (const auto dates : {DateCoding::iso8601, DateCoding::referenceSeconds}) {
    EXPECT_EQ(providerBudgetReportFromJson(toJson(full, dates), dates), full);
    EXPECT_EQ(providerBudgetReportFromJson(toJson(ProviderBudgetReport{}, dates), dates),
              ProviderBudgetReport{});
  }
  auto metric = toJson(full.context);
  metric.erase("source");
  metric["confidence"] = "high";
  EXPECT_EQ(contextMetricFromJson(metric)->source(), "unknown");
  EXPECT_EQ(contextMetricFromJson(metric)->confidence(), 1.0);
  metric.erase("confidence");
  EXPECT_EQ(contextMetricFromJson(metric)->confidence(), 1.0);
  EXPECT_EQ(contextMetricFromJson(metric)->unavailableReason(), std::nullopt);
  const auto later = contextMetricFromJson({{"type", "later"}, {"reason", 7}});
  EXPECT_EQ(later->unavailableReason(), "Unavailable");
  EXPECT_EQ(later->confidence(), Context::unavailable("x").confidence());
  metric.erase("value");
  EXPECT_FALSE(contextMetricFromJson(metric));
  EXPECT_FALSE(contextMetricFromJson(nlohmann::json::object()));

  const auto low = ProviderBudgetReport::make({.agentType = AgentType::codex, .context = context(200, 190)});
  ASSERT_TRUE(low.lowBudgetAlert);
  auto told = low;
  told.lowBudgetAlert->message = "told by somebody else";
  EXPECT_EQ(ProviderBudgetReport::make(told), told);
  const nlohmann::json valid = toJson(full, DateCoding::iso8601);
  requireStrictReading(valid, toJson(ProviderBudgetReport{}, DateCoding::iso8601), [](const auto& read) {
    return providerBudgetReportFromJson(read, DateCoding::iso8601).has_value();
  });
  struct Case {
    const char* pointer;
    nlohmann::json value;
    const char* error;
  };
  for (const auto& [pointer, value, error] : {
           Case{"/agentType", "claud", "\"agentType\" is not a known agent"},
           Case{"/context/value/contextWindow", "200", "\"contextWindow\" is not"},
           Case{"/quota/value/percentageRemaining", true, "\"percentageRemaining\""},
           Case{"/sessionUsage/recordedAt", 1, "\"recordedAt\" is not"},
           Case{"/cost", {{"amountUSD", 1}}, "\"isEstimated\" is missing"},
           Case{"/lowBudgetAlert/level", "bad", "\"level\" is not a known level"},
           Case{"/lowBudgetAlert/metricType", "x", "\"metricType\" is not a known metric"},
       }) {
    auto broken = valid;
    broken[nlohmann::json::json_pointer(pointer)] = value;
    const auto decoded = providerBudgetReportFromJson(broken, DateCoding::iso8601);
    ASSERT_FALSE(decoded) << pointer;
    EXPECT_TRUE(decoded.error().text.contains(error)) << decoded.error().text;
  }
}

}  // namespace
}  // namespace vimbrel
