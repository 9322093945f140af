// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <numeric>

#include "Avatar/VimbrelBlobAvatarProvider.h"
#include "DesktopWorld.h"
#include "Domain/RatesFile.h"
#include "Presentation/AgentSetup.h"
#include "Presentation/DoctorFindings.h"
#include "Presentation/EpisodeTimeline.h"
#include "Presentation/SettingsList.h"
#include "Presentation/UsageSummaries.h"

namespace vimbrel::desktop {
namespace {

using namespace std::string_literals;
using nlohmann::json;

/// The texts of the rows in their order, as one.
template <typename Row>
std::string lettersOf(const std::vector<Row>& rows, std::string Row::* text) {
  std::string all;
  for (const auto& row : rows) all += row.*text;
  return all;
}

TEST(UsageChart, hasEveryDayOnceTodayLast) {
  const ScopedEnvironment zone{{"TZ", "America/New_York"}};
  const auto day = [](const char* key, std::int64_t claude, std::int64_t codex) {
    return json{{"key", key},
                {"totalTokens", claude + codex},
                {"estimatedCostUSD", 3.1},
                {"byAgent", {{"claude", {{"totalTokens", claude}}}, {"codex", {{"totalTokens", codex}}}}}};
  };
  const json report{
      {"rows", {day("2026-01-17", 9, 9), day("2026-01-18", 1000, 0), day("2026-01-31", 0, 1200000)}}};
  const auto chart = makeUsageChart(report, noon);
  ASSERT_EQ(chart.days.size(), 14U);
  EXPECT_EQ(chart.days.front().totalTokens, 1000) << "the 17th is out, the 18th is the first";
  EXPECT_EQ(chart.days.back().tokens.at(AgentType::codex), 1200000);
  EXPECT_EQ(chart.mostTokens, 1200000);
  EXPECT_EQ(chart.agents, (std::vector{AgentType::claude, AgentType::codex}));
  EXPECT_EQ(chart.today, "Today 1.2M tokens, $3.10");
  EXPECT_EQ(iso(chartBegin(noon)), "2026-01-18T05:00:00Z");
  EXPECT_EQ(makeUsageChart(json(), noon).today, "Nothing used today");
}

TEST(UsageTable, newestOrMostFirst) {
  const json report{{"rows",
                     {{{"key", "a"}, {"totalTokens", 1}},
                      {{"key", "b"}, {"totalTokens", 9}},
                      {{"key", "c"}, {"totalTokens", 5}, {"byAgent", {{"aider", {}}}}}}},
                    {"total", {{"totalTokens", 15}}}};
  const auto days = makeUsageTable(report, UsageKeys::days);
  EXPECT_EQ(lettersOf(days.rows, &UsageRow::name), "cba");
  EXPECT_EQ(lettersOf(makeUsageTable(report, UsageKeys::names).rows, &UsageRow::name), "bca");
  EXPECT_EQ(days.rows[0].agents, "Aider");
  EXPECT_EQ(days.total.tokens, 15);
  EXPECT_EQ(costText(0.001), "<$0.01");
  EXPECT_EQ(costText(std::nullopt), "no price") << "unpriced is not free";
}

TEST(UsageTable, showsBillingWindowsByTheUsersClock) {
  const ScopedEnvironment zone{{"TZ", "Asia/Kolkata"}};
  const json report{{"rows", {{{"key", "2026-11-23T21:00:00Z"}, {"totalTokens", 1}}}}};
  EXPECT_EQ(makeUsageTable(report, UsageKeys::moments).rows.at(0).name, "2026-11-24 02:30");
  EXPECT_EQ(makeUsageTable(report, UsageKeys::names).rows.at(0).name, "2026-11-23T21:00:00Z")
      << "a session may be called so";
}

TEST(UsageTable, namesModelsWithoutAPrice) {
  json report{{"rows", json::array()}, {"unpricedModels", {"house-model", "other"}}};
  EXPECT_EQ(makeUsageTable(report, UsageKeys::days).unpriced,
            "Unpriced, and in no cost: house-model, other.\nGive them prices in " + ratesFile::defaultPath() +
                " (docs/usage.md).");
  for (const auto& none : {json::array(), json("all"), json()}) {
    report["unpricedModels"] = none;
    EXPECT_EQ(makeUsageTable(report, UsageKeys::days).unpriced, "") << none;
  }
}

TEST(SettingsList, knowsItsControlsAndKeepsWhatItDoesNotKnow) {
  const auto setting = [](const char* key, const char* type, json value, json minimum = nullptr,
                          json maximum = nullptr) {
    return json{
        {"key", key},         {"type", type},       {"unit", type == "number"s ? "seconds" : "percent"},
        {"value", value},     {"text", "x"},        {"isDefault", false},
        {"minimum", minimum}, {"maximum", maximum}, {"help", "Help."}};
  };
  const auto list = makeSettingsList(
      {{"location", "/home/user/settings.json"},
       {"settings",
        {setting("inventedLater", "boolean", true), setting("batteryFloorPercent", "integer", 20, 5.0, 50.0),
         setting("pauseUntil", "date", nullptr), setting("hasCompletedOnboarding", "boolean", true),
         setting("releaseDelaySeconds", "number", 30.0, 0.0, 604800.0), json{{"odd", 1}}}}});
  ASSERT_EQ(list.rows.size(), 3U);
  EXPECT_EQ(list.rows[0].key, "releaseDelaySeconds");
  EXPECT_EQ(list.rows[0].control, SettingRow::Control::duration);
  EXPECT_EQ(list.rows[0].range, "0 s to 7 d");
  EXPECT_EQ(list.rows[1].title, "Battery floor");
  EXPECT_EQ(list.rows[1].range, "5 to 50 %");
  EXPECT_EQ(list.rows[1].numberValue, 20);
  EXPECT_EQ(list.rows[2].title, "Help.") << "in the application's words";
  EXPECT_TRUE(list.rows[2].isOn);
}

TEST(Rows, thatNeedDoingComeFirst) {
  const auto agent = [](const char* type, bool installed, bool active) {
    return json{{"agentType", type}, {"isInstalled", installed}, {"isIntegrationActive", active}};
  };
  const auto agents =
      makeAgentRows({{"agents",
                      {agent("aider", false, false), agent("claude", true, true), agent("codex", true, false),
                       agent("opencode", false, true), agent("mystery", true, true)}}});
  std::vector<AgentType> order;
  for (const auto& row : agents) order.push_back(row.agent);
  EXPECT_EQ(order, (std::vector{AgentType::codex, AgentType::claude, AgentType::opencode, AgentType::aider}));

  const auto finding = [](const char* subject, const char* verdict) {
    return json{{"subject", subject}, {"verdict", verdict}, {"explanation", "e"}, {"remedy", "r"}};
  };
  const auto findings = makeFindingRows(
      {{"findings",
        {finding("a", "works"), finding("b", "warning"), finding("c", "refused"), finding("d", "missing")}}});
  EXPECT_EQ(lettersOf(findings, &FindingRow::subject), "cbda");
}

TEST(AgentInstructions, todaysFormFirst) {
  EXPECT_EQ(makeAgentInstructions({{"currentSetupSnippet", "new"}, {"manualSetupSnippet", "old"}}).snippet,
            "new");
  EXPECT_EQ(makeAgentInstructions({{"currentSetupSnippet", nullptr}, {"manualSetupSnippet", "old"}}).snippet,
            "old");
}

TEST(FirstEvent, isOneOfThatAgentThroughItsHookSinceTheBeginning) {
  const auto with = [](std::initializer_list<json> sessions) {
    return *publishedStateFromJson(published({{"sessions", json(sessions)}}));
  };
  const auto before = session("claude", "idle", "old", noon);
  FirstEventWatch watch;
  watch.begin(AgentType::claude, with({before}));
  EXPECT_FALSE(watch.update(with({before})));
  EXPECT_FALSE(watch.update(with({before, session("codex", "working", "x", noon)}))) << "another agent";
  EXPECT_FALSE(watch.update(with({before, session("claude", "working", "p", noon, "process")})))
      << "a process proves no hook";
  auto again = before;
  again["lastEventAt"] = iso(noon + Seconds(1));
  EXPECT_TRUE(watch.update(with({again})));
  EXPECT_TRUE(watch.update(with({}))) << "it stays received when the session goes";
  watch.begin(AgentType::claude, with({again}));
  EXPECT_FALSE(watch.isReceived());
  EXPECT_TRUE(watch.update(with({again, session("claude", "working", "new", noon)})));
}

TEST(EpisodeTimeline, dividesEpisodesAtMidnightOfTheUsersCalendar) {
  const ScopedEnvironment zone{{"TZ", "Asia/Tokyo"}};
  // From 22:00 in Tokyo.
  json episode{{"startedAt", "2026-01-30T13:00:00Z"},
               {"endedAt", "2026-01-30T17:00:00Z"},
               {"ending", "blocked"},
               {"block", rawValue(SafetyBlock::batteryBelowFloor)},
               {"reasons", {"Running make"}},
               {"wasDeepHoldWanted", true},
               {"batteryAtStart", 80},
               {"batteryAtEnd", 15}};
  const auto timeline = makeEpisodeTimeline({{"episodes", {episode, {{"unreadable", true}}}}}, noon);
  ASSERT_EQ(timeline.days.size(), 2U);
  ASSERT_EQ(timeline.days[0].bars.size(), 1U);
  EXPECT_DOUBLE_EQ(timeline.days[0].bars[0].from, 0);
  EXPECT_DOUBLE_EQ(timeline.days[0].bars[0].to, 2.0 / 24);
  EXPECT_DOUBLE_EQ(timeline.days[1].bars[0].from, 22.0 / 24);
  EXPECT_DOUBLE_EQ(timeline.days[1].bars[0].to, 1);
  EXPECT_DOUBLE_EQ(timeline.days[0].seconds + timeline.days[1].seconds, 4 * 3600);
  EXPECT_TRUE(timeline.days[1].bars[0].isDeep);
  ASSERT_EQ(timeline.episodes.size(), 1U);
  EXPECT_EQ(timeline.episodes[0].tone, Tone::bad);
  EXPECT_EQ(timeline.episodes[0].battery, "80 % → 15 %");
  EXPECT_EQ(timeline.total, "Kept awake for 4 h in all, once; cut off for safety once");

  for (const auto* key : {"block", "batteryAtEnd"}) episode.erase(key);
  episode.update({{"endedAt", "2026-01-30T14:00:00Z"}, {"ending", "finished"}, {"unheldSeconds", 3600.0}});
  const auto unheld = makeEpisodeTimeline({{"episodes", {episode}}}, noon);
  EXPECT_EQ(unheld.days[1].seconds, 0);
  EXPECT_EQ(unheld.episodes[0].duration, "1 h (not held for 1 h)");
  EXPECT_EQ(unheld.episodes[0].ending, "the hold ended") << "no agent was there to be done";
  EXPECT_EQ(unheld.episodes[0].tone, Tone::bad);
  EXPECT_EQ(unheld.episodes[0].battery, "");
  EXPECT_EQ(unheld.total, "Kept awake for 0 s in all, once");
  EXPECT_TRUE(makeEpisodeTimeline(json(), noon).days.empty());
}

TEST(Avatar, everyMoodIsToldByItsShapeAlone) {
  // Without colour: which pixels are dark, light and empty.
  const auto shape = [](const PixelSpriteFrame& frame) {
    std::string text;
    for (int y = 0; y < PixelSpriteFrame::side; ++y) {
      for (int x = 0; x < PixelSpriteFrame::side; ++x) {
        const auto pixel = frame.at(x, y);
        const int light = pixel.red + pixel.green + pixel.blue;
        text += pixel.alpha == 0 ? '.' : light < 150 ? '#' : light == 765 ? 'O' : '+';
      }
    }
    return text;
  };
  std::vector<std::string> firsts;
  std::vector<AvatarMood> moods{{.isAbsent = true}, {.isPaused = true}};
  for (const auto state : allVisualStates) moods.push_back({.state = state});
  for (const auto& mood : moods) {
    const auto frames = VimbrelBlobAvatarProvider::frames(mood);
    ASSERT_FALSE(frames.empty());
    const bool moves = VimbrelBlobAvatarProvider::frameDuration(mood) > Seconds(0);
    EXPECT_EQ(moves, frames.size() > 1);
    firsts.push_back(shape(frames.front()));
  }
  for (std::size_t i = 0; i < firsts.size(); ++i) {
    for (std::size_t j = 0; j < i; ++j) {
      const auto alike = std::inner_product(firsts[i].begin(), firsts[i].end(), firsts[j].begin(),
                                            std::size_t{0}, std::plus<>(), std::equal_to<>());
      EXPECT_LE(alike + 6, firsts[i].size()) << i << " looks like " << j;
    }
  }
}

TEST(Avatar, theCountIsReadable) {
  const auto frame = VimbrelBlobAvatarProvider::frames({.state = VimbrelVisualState::working}).front();
  EXPECT_EQ(VimbrelBlobAvatarProvider::withCount(frame, 0), frame);
  EXPECT_NE(VimbrelBlobAvatarProvider::withCount(frame, 1), VimbrelBlobAvatarProvider::withCount(frame, 2));
  EXPECT_EQ(VimbrelBlobAvatarProvider::withCount(frame, 10), VimbrelBlobAvatarProvider::withCount(frame, 99));
}

}  // namespace
}  // namespace vimbrel::desktop
