// SPDX-License-Identifier: Apache-2.0
#include "Terminal/StatusBarLine.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "ScopedEnvironment.h"
#include "Terminal/HistoryView.h"

namespace vimbrel {
namespace {

using nlohmann::json;

const Instant noon = instantFromUnixSeconds(1769860800);  // 2026-01-31T12:00:00Z

json stateOf(const json& changes) {
  json state{{"visualState", "idle"},
             {"isHolding", false},
             {"statusDescription", "Sleep enabled — No active agent sessions"},
             {"decision", {{"release", {{"reason", "No active agent sessions"}}}}},
             {"assertions", {{"system", false}, {"simulated", false}}},
             {"agentFamilies", json::array()},
             {"power", {{"batteryPercent", 71}}}};
  state.update(changes);
  return state;
}

const json working{{"visualState", "working"},
                   {"isHolding", true},
                   {"statusDescription", "Active (2 working agents) — Claude Code, Codex CLI working"},
                   {"assertions", {{"system", true}, {"mechanisms", {"logind"}}}},
                   {"agentFamilies",
                    {{{"displayName", "Claude Code"},
                      {"workingSessionCount", 1},
                      {"waitingSessionCount", 1},
                      {"budgetSummaryLine", "Opus <4> & more"}}}}};

TEST(StatusBarLine, saysInEachBarsWayWhatCounts) {
  json debounce = working;
  debounce["agentFamilies"] = json::array();
  json unheld = working;
  unheld["assertions"] = {{"system", false}};
  json simulated = debounce;
  simulated["assertions"]["simulated"] = true;
  const json blocked{{"visualState", "error"}, {"decision", {{"blocked", {{"block", "100%{F} hot"}}}}}};
  struct Case {
    json state;
    std::string text;
    std::string shortText;
    std::string colour;
  };
  for (const auto& [state, text, shortText, colour] : {
           Case{json::object(), "idle", "idle", "#909090"},
           Case{stateOf(json::object()), "idle", "idle", "#909090"},
           Case{stateOf(working), "1 working, 1 waiting", "2", "#4caf50"},
           Case{stateOf(debounce), "awake", "awake", "#4caf50"},
           Case{stateOf(simulated), "awake (simulated)", "awake", "#4caf50"},
           Case{stateOf(unheld), "NOT HELD", "2", "#e05050"},
           Case{stateOf(blocked), "100%{F} hot", "blocked", "#e05050"},
       }) {
    EXPECT_EQ(statusBarLine(state, StatusBarFormat::plain, noon), text);
    EXPECT_EQ(json::parse(statusBarLine(state, StatusBarFormat::i3blocks, noon)),
              (json{{"full_text", text}, {"short_text", shortText}, {"color", colour}}));
    if (text.contains('%')) continue;
    EXPECT_EQ(statusBarLine(state, StatusBarFormat::polybar, noon), "%{F" + colour + "}" + text + "%{F-}");
  }
  EXPECT_EQ(statusBarLine(stateOf(blocked), StatusBarFormat::polybar, noon), "%{F#e05050}100% {F} hot%{F-}")
      << "what is said is no markup";
  const auto paused = stateOf({{"visualState", "error"},
                               {"pauseUntil", "2026-01-31T13:00:00Z"},
                               {"decision", {{"blocked", {{"block", "x"}}}}}});
  EXPECT_TRUE(statusBarLine(paused, StatusBarFormat::plain, noon).starts_with("paused until "));
}

TEST(StatusBarLine, givesWaybarMarkupClassesAndATooltip) {
  json state = stateOf(working);
  state["lowBudgetAlerts"] = {{"claude", {{"message", "Quota at 4%"}}}};
  state["closedLid"] = {{"cover", "covered"}};
  const auto object = json::parse(statusBarLine(state, StatusBarFormat::waybar, noon));
  EXPECT_EQ(object["text"], "1 working, 1 waiting");
  EXPECT_EQ(object["alt"], "working");
  EXPECT_EQ(object["class"], json({"working", "held", "low-budget"}));
  EXPECT_EQ(object["percentage"], 71);
  EXPECT_EQ(object["tooltip"],
            "Active (2 working agents) — Claude Code, Codex CLI working\n"
            "Claude Code: Opus &lt;4&gt; &amp; more\n! Quota at 4%\nHeld: system sleep, by logind\n"
            "The lid may be closed");
  EXPECT_EQ(json::parse(stoppedBarLine(StatusBarFormat::waybar))["class"], json({"stopped"}));
  state["statusDescription"] = "Active (0 working agents) — Release debounce (29s)";
  const auto first = statusBarLine(state, StatusBarFormat::waybar, noon);
  state["statusDescription"] = "Active (0 working agents) — Release debounce (28s)";
  EXPECT_EQ(statusBarLine(state, StatusBarFormat::waybar, noon), first) << "a countdown is no change";
}

// How whole days look stands in docs/examples/day.txt.
TEST(HistoryView, dividesAtMidnightAndCountsNoTimeThatWasNotHeld) {
  const ScopedEnvironment zone{{"TZ", "UTC"}};
  const auto episode = [](const char* from, const char* to, const json& more) {
    json made{{"startedAt", from},
              {"endedAt", to},
              {"ending", "finished"},
              {"reasons", {"Running make"}},
              {"wasDeepHoldWanted", true}};
    made.update(more);
    return made;
  };
  const json history{
      {"episodes",
       {episode("2026-01-29T22:45:00Z", "2026-01-30T01:15:00Z", {{"workingSeconds", {{"claude", 3600.0}}}}),
        json("not an episode"),
        episode("2026-01-31T11:00:00Z", "2026-01-31T11:15:00Z",
                {{"ending", "ongoing"}, {"unheldSeconds", 60.0}}),
        episode("2026-01-31T11:20:00Z", "2026-01-31T11:50:00Z", {{"unheldSeconds", 1800.0}})}}};
  const auto lines = historyLines(history, 0, Palette(false), noon);
  ASSERT_EQ(lines.size(), 12U);
  EXPECT_EQ(lines[1], "Thu 2026-01-29  ·············································▄██  1 h 15 min");
  EXPECT_EQ(lines[2], "Fri 2026-01-30  ██▄·············································  1 h 15 min");
  EXPECT_EQ(lines[3], "Sat 2026-01-31  ······················▄·························  14 min");
  EXPECT_TRUE(lines[7].contains("15 min (not held for 1 min)   goes on")) << lines[7];
  EXPECT_TRUE(lines[7].ends_with("not covered")) << lines[7];
  EXPECT_TRUE(lines[8].contains("the hold ended")) << "no agent was there to finish";
  EXPECT_EQ(lines[10], "Protected for 2 h 44 min in 3 episodes; 0 safety cut-offs");
  EXPECT_EQ(lines[11], "Sleeps prevented: Claude Code 1");
  const json unheld{{"episodes", {history["episodes"][3]}}};
  EXPECT_EQ(historyLines(unheld, 0, Palette(false), noon)[1],
            "Sat 2026-01-31  ················································");
  EXPECT_EQ(historyLines(json::object(), 0, Palette(false), noon).size(), 1U);
}

}  // namespace
}  // namespace vimbrel
