// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <fstream>
#include <limits>
#include <nlohmann/json.hpp>

#include "Domain/HookUsage.h"
#include "Domain/ModelRateCard.h"
#include "Domain/RatesFile.h"
#include "Domain/StrictCodec.h"
#include "Domain/UsageCodec.h"
#include "TemporaryDirectory.h"

namespace vimbrel {
namespace {

constexpr std::int64_t most = std::numeric_limits<std::int64_t>::max();

UsageEvent event(const std::string& session, double at, UsageEvent fields = {}) {
  fields.id = "e";
  fields.sessionId = session;
  fields.timestamp = instantFromUnixSeconds(at);
  fields.source = "test";
  if (fields.agentType == AgentType::custom) fields.agentType = AgentType::claude;
  return UsageEvent::make(fields);
}

TEST(UsageEvent, derivesItsTotalUtilizationAndKey) {
  const auto sum = event(
      "s1", 12.5, {.inputTokens = 100, .outputTokens = 50, .cachedTokens = 9000, .reasoningTokens = 10});
  EXPECT_EQ(sum.totalTokens, 160);
  EXPECT_EQ(sum.deduplicationKey(), "claude_s1_12.5_160");
  EXPECT_EQ(event("s1", 12, {.turnId = "t7"}).deduplicationKey(), "claude_s1_t7");
  EXPECT_EQ(event("s1", 12, {.turnId = ""}).deduplicationKey(), "claude_s1_12.0_0");
  EXPECT_EQ(event("s1", 12, {.cachedTokens = 5}).effectiveTotalTokens(), std::nullopt);
  EXPECT_EQ(event("s1", 12, {.inputTokens = most, .outputTokens = most}).totalTokens, most);

  EXPECT_EQ(event("s", 0, {.totalTokens = 50, .contextWindow = 200}).contextUtilization(), 0.25);
  EXPECT_EQ(event("s", 0, {.totalTokens = 300, .contextWindow = 200}).contextUtilization(), 1.0);
  EXPECT_EQ(event("s", 0, {.totalTokens = 10, .contextWindow = 0}).contextUtilization(), std::nullopt);
  EXPECT_EQ(event("s", 0, {.contextWindow = 200}).contextUtilization(), std::nullopt);
}

TEST(SessionUsageRecord, foldsEventsAndMovesByTheDifferenceOfALaterReading) {
  const auto first = event("s", 100, {.modelId = "a", .inputTokens = 10, .contextWindow = 5});
  const auto older = event("s", 50, {.modelId = "b", .outputTokens = 7, .costEstimateUSD = 0.5});
  auto record = SessionUsageRecord::openedBy(first.view());
  record.fold(first.view());
  EXPECT_EQ(record.estimatedCostUSD, std::nullopt);
  record.fold(older.view());
  EXPECT_EQ(record.modelId, "a");
  EXPECT_EQ(record.lastActiveAt, instantFromUnixSeconds(100));
  EXPECT_EQ(record.durationSeconds, 0);

  const auto grown = event("s", 130, {.inputTokens = 25, .costEstimateUSD = 1, .quotaRemainingPercent = 40});
  EXPECT_TRUE(grown.view().countsMoreThan(first.view()));
  EXPECT_FALSE(first.view().countsMoreThan(first.view()));
  ASSERT_TRUE(record.exchange(first.view(), grown.view()));
  EXPECT_EQ(record.totalTokens, 32);
  EXPECT_EQ(record.durationSeconds, 30);
  EXPECT_EQ(record.estimatedCostUSD, 1.5);
  EXPECT_EQ(record.contextWindow, 5);
  EXPECT_EQ(record.quotaRemainingPercent, 40);

  record.fold(event("s", 1, {.inputTokens = most}).view());
  EXPECT_EQ(record.inputTokens, most);
  EXPECT_FALSE(record.exchange(first.view(), grown.view())) << "what a saturated sum held is unknown";
}

TEST(UsageSummary, countsDistinctSessionsForEachAgentAndKeepsAnAbsentCostAbsent) {
  const auto summary =
      summarise(std::vector{event("a", 1, {.totalTokens = 5}), event("a", 2, {.inputTokens = 1}),
                            event("b", 3, {.cachedTokens = 4, .totalTokens = most}),
                            event("a", 4, {.agentType = AgentType::codex, .costEstimateUSD = 0.0})});
  EXPECT_EQ(summary.sessionCount, 2);
  EXPECT_EQ(summary.turnCount, 4);
  EXPECT_EQ(summary.totalTokens, most);
  EXPECT_EQ(summary.estimatedCostUSD, 0.0);
  ASSERT_EQ(summary.byAgent.size(), 2U);
  const auto& claude = summary.byAgent.at("claude");
  EXPECT_EQ(claude.sessionCount, 2);
  EXPECT_EQ(claude.turnCount, 3);
  EXPECT_EQ(claude.estimatedCostUSD, std::nullopt);
}

TEST(UsageCodec, readsBackWhatItWroteInBothDateFormsAndRefusesGaps) {
  constexpr auto dates = DateCoding::referenceSeconds;
  auto full = event("s", 1731790000.25,
                    {.turnId = "t",
                     .modelId = "m",
                     .inputTokens = 1,
                     .outputTokens = 2,
                     .cachedTokens = 3,
                     .cacheWriteTokens = 4,
                     .reasoningTokens = 5,
                     .contextWindow = 6,
                     .costEstimateUSD = 0.1,
                     .quotaRemainingPercent = 7});
  EXPECT_EQ(usageEventFromJson(toJson(full, dates), dates), full);
  auto record = SessionUsageRecord::openedBy(full.view());
  record.fold(full.view());
  EXPECT_EQ(sessionUsageRecordFromJson(toJson(record, dates), dates), record);
  EXPECT_EQ(toJson(record, DateCoding::iso8601)["startedAt"], "2024-11-16T20:46:40Z");
  const auto summary = summarise({{full}});
  EXPECT_EQ(usageSummaryFromJson(toJson(summary)), summary);
  const auto bare = event("s", 0);
  requireStrictReading(toJson(full, dates), toJson(bare, dates),
                       [](const auto& read) { return usageEventFromJson(read, dates).has_value(); });
  requireStrictReading(toJson(record, dates), toJson(SessionUsageRecord::openedBy(bare.view()), dates),
                       [](const auto& read) { return sessionUsageRecordFromJson(read, dates).has_value(); });
  requireStrictReading(toJson(summary), toJson(UsageSummary{}),
                       [](const auto& read) { return usageSummaryFromJson(read).has_value(); });
  nlohmann::json broken = toJson(summary);
  broken["byAgent"]["claude"] = nlohmann::json::object();
  EXPECT_FALSE(usageSummaryFromJson(broken));
}

TEST(ModelRateCard, findsTheExactElseTheLongestKey) {
  for (const auto& [id, key] : {std::pair(" GPT-4o\n", "gpt-4o"),
                                {"gpt-4o-mini-2024-07-18", "gpt-4o-mini"},
                                {"o1-mini-x", "o1-mini"},
                                {"anthropic/claude-3-opus-latest", "claude-3-opus"},
                                {"llama-3", "none"},
                                {" \n", "none"}}) {
    const auto* row = ModelRateCard::builtIn().find(id);
    EXPECT_EQ(row == nullptr ? "none" : row->key, key);
  }
  EXPECT_EQ(ModelRateCard::builtIn().find(std::nullopt), nullptr);
}

TEST(ModelRateCard, takesEachTokenOnceAtItsPrice) {
  const auto million = 1'000'000;
  EXPECT_EQ(ModelRateCard::estimateCost("claude-3-5-sonnet-20241022", million, million, {}, {}, {}), 18.0);
  EXPECT_EQ(ModelRateCard::estimateCost("gemini-1.5-flash", {}, {}, 2 * million, {}, {}), 0.0375);
  EXPECT_EQ(ModelRateCard::estimateCost("gpt-4o", {}, {}, {}, {}, {}), 0.0);
  EXPECT_EQ(ModelRateCard::estimateCost("llama-3", 1, 1, 1, 1, 1), std::nullopt);
  EXPECT_EQ(ModelRateCard::contextWindow("gpt-5.6-terra"), 258'400);
  EXPECT_EQ(ModelRateCard::contextWindow("llama-3"), std::nullopt);
  const auto& card = ModelRateCard::builtIn();
  EXPECT_EQ(card.price("claude-opus-5", {.cacheWriteTokens = million, .oneHourCacheWriteTokens = million}),
            18.75 + 30.0);
  EXPECT_EQ(card.price("gpt-5.6-terra", BilledTokens::fromNestedCounts(3 * million, million, million)),
            2 * 3.0 + 12.0 + 1.5);
}

TEST(RatesFile, addsTheUsersPricesAndSaysWhatIsWrongWithThem) {
  const auto rows = ratesFile::parse(R"({"models":[
      {"model":" House-Model","input":2,"output":8,"contextWindow":32000},
      {"model":"gpt-4o","input":1,"output":1,"cacheRead":0,"cacheWrite":0,"reasoning":0}]})");
  ASSERT_TRUE(rows) << rows.error();
  const auto& builtIn = ModelRateCard::builtIn();
  const auto card = builtIn.with(*rows);
  EXPECT_EQ(card.rows().size(), builtIn.rows().size() + 1);
  EXPECT_EQ(builtIn.with({{" ", {}}}).rows().size(), builtIn.rows().size()) << "a model without a name";
  const BilledTokens million{
      .inputTokens = 1'000'000, .cachedTokens = 1'000'000, .reasoningTokens = 1'000'000};
  EXPECT_EQ(card.price("vendor/house-model-7b", million), 2 + 2 + 8.0)
      << "missing prices are the dearer ones";
  EXPECT_EQ(card.price("gpt-4o", million), 1.0);
  EXPECT_EQ(card.find("gpt-4o")->contextWindow, 128'000);
  EXPECT_EQ(card.price("claude-opus-5", million), builtIn.price("claude-opus-5", million));
  EXPECT_EQ(builtIn.price("gpt-4o", {.inputTokens = 1'000'000}), 2.5);
  const auto model = [](const char* members) { return std::string(R"({"models":[{)") + members + "}]}"; };
  for (const auto& [text, says] : {
           std::pair<std::string, const char*>("[]", "not a JSON object"),
           {"[", "not a JSON object"},
           {"{}", "no list \"models\""},
           {R"({"models":{}})", "no list \"models\""},
           {model(R"("model":7,"input":1,"output":1)"), "\"model\" is not a string"},
           {model(R"("input":1,"output":1)"), "\"model\" is missing"},
           {model(R"("model":" ","input":1,"output":1)"), "\"model\" is empty"},
           {model(R"("model":"a","input":1)"), "a: \"output\" is missing"},
           {model(R"("model":"a","input":-1,"output":1)"), "a: \"input\" is no price"},
           {model(R"("model":"a","input":1,"output":1e9)"), "a: \"output\" is no price"},
           {model(R"("model":"a","input":1,"output":1,"contextWindow":0)"), "\"contextWindow\" is no"},
           {model(R"("model":"a","input":1,"output":1,"contextWindow":1000000001)"),
            "\"contextWindow\" is no"},
       }) {
    const auto refused = ratesFile::parse(text);
    ASSERT_FALSE(refused) << text;
    EXPECT_TRUE(refused.error().contains(says)) << refused.error();
  }
  TemporaryDirectory directory;
  std::ofstream(directory.file("rates.json")) << R"({"models":[7]})";
  EXPECT_EQ(ratesFile::load(directory.file("rates.json")).error(),
            "the prices in " + directory.file("rates.json") +
                " cannot be used: an entry without a \"model\": not a JSON object");
  EXPECT_EQ(ratesFile::load("/nonexistent/rates.json")->rows().size(), builtIn.rows().size());
  EXPECT_TRUE(
      ratesFile::load("/dev/null/rates.json").error().starts_with("the prices in /dev/null/rates.json"));
}

TEST(HookUsage, convertsWhatCountsAndNothingElse) {
  HookEvent hook{.agent = AgentType::claude, .sessionId = "s", .timestamp = instantFromUnixSeconds(9)};
  hook.cachedTokens = 50;
  EXPECT_EQ(toUsageEvent(hook), std::nullopt);
  hook.model = " GPT-4o";
  auto usage = toUsageEvent(hook);
  ASSERT_TRUE(usage);
  EXPECT_EQ(usage->totalTokens, std::nullopt);
  EXPECT_EQ(usage->costEstimateUSD, 50 / 1e6 * 1.25);
  hook.inputTokens = most;
  hook.reasoningTokens = most;
  hook.model = std::nullopt;
  usage = toUsageEvent(hook);
  ASSERT_TRUE(usage);
  EXPECT_EQ(usage->totalTokens, most);
  EXPECT_EQ(usage->costEstimateUSD, std::nullopt);
  EXPECT_NE(usage->id, toUsageEvent(hook)->id);
}

}  // namespace
}  // namespace vimbrel
