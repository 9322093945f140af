// SPDX-License-Identifier: Apache-2.0
#include "Terminal/StatusBarLine.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

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
             {"lowBudgetAlerts", json::object()},
             {"pauseUntil", nullptr},
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
  json held = working;
  json debounce = working;
  debounce["agentFamilies"] = json::array();
  debounce["statusDescription"] = "Active (0 working agents) — Release debounce (29s)";
  json unheld = working;
  unheld["assertions"] = {{"system", false}};
  json simulated = debounce;
  simulated["assertions"] = {{"system", true}, {"simulated", true}};
  struct Case {
    json state;
    std::string plain;
    std::string i3blocks;
    std::string polybar;
  };
  for (const auto& [state, plain, i3blocks, polybar] : {
           Case{stateOf(json::object()), "idle",
                R"({"color":"#909090","full_text":"idle","short_text":"idle"})", "%{F#909090}idle%{F-}"},
           Case{stateOf(held), "1 working, 1 waiting",
                R"({"color":"#4caf50","full_text":"1 working, 1 waiting","short_text":"2"})",
                "%{F#4caf50}1 working, 1 waiting%{F-}"},
           Case{stateOf(debounce), "awake", R"({"color":"#4caf50","full_text":"awake","short_text":"awake"})",
                "%{F#4caf50}awake%{F-}"},
           Case{stateOf(simulated), "awake (simulated)",
                R"x({"color":"#4caf50","full_text":"awake (simulated)","short_text":"awake"})x",
                "%{F#4caf50}awake (simulated)%{F-}"},
           Case{stateOf(unheld), "NOT HELD", R"({"color":"#e05050","full_text":"NOT HELD","short_text":"2"})",
                "%{F#e05050}NOT HELD%{F-}"},
           Case{stateOf({{"visualState", "error"}, {"decision", {{"blocked", {{"block", "100%{F} hot"}}}}}}),
                "100%{F} hot", R"({"color":"#e05050","full_text":"100%{F} hot","short_text":"blocked"})",
                "%{F#e05050}100% {F} hot%{F-}"},
           Case{json::object(), "idle", R"({"color":"#909090","full_text":"idle","short_text":"idle"})",
                "%{F#909090}idle%{F-}"},
       }) {
    EXPECT_EQ(statusBarLine(state, StatusBarFormat::plain, noon), plain);
    EXPECT_EQ(statusBarLine(state, StatusBarFormat::i3blocks, noon), i3blocks);
    EXPECT_EQ(statusBarLine(state, StatusBarFormat::polybar, noon), polybar);
  }
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

TEST(HistoryView, drawsEachDayAndNamesEachEnd) {
  ::setenv("TZ", "UTC", 1);
  const auto episode = [](const char* from, const char* to, const json& more) {
    json made{{"startedAt", from},
              {"endedAt", to},
              {"ending", "finished"},
              {"reasons", {"Claude Code working"}},
              {"workingSeconds", {{"claude", 3600.0}}},
              {"counts", json::array()},
              {"wasDeepHoldWanted", true},
              {"wasLidCovered", true},
              {"unheldSeconds", 0.0}};
    made.update(more);
    return made;
  };
  const json history{
      {"episodes",
       {episode("2026-01-29T22:45:00Z", "2026-01-30T01:15:00Z", json::object()),
        episode("2026-01-31T09:00:00Z", "2026-01-31T09:30:00Z",
                {{"ending", "blocked"},
                 {"block", "Battery level below safety cutoff"},
                 {"batteryAtStart", 20},
                 {"batteryAtEnd", 14},
                 {"wasLidCovered", false}}),
        json("not an episode"),
        episode("2026-01-31T11:00:00Z", "2026-01-31T11:15:00Z",
                {{"ending", "ongoing"}, {"unheldSeconds", 60.0}, {"workingSeconds", json::object()}})}}};
  const auto lines = historyLines(history, 0, Palette(false), noon);
  ASSERT_GE(lines.size(), 12U);
  EXPECT_EQ(lines[0], "                0           6           12          18          24");
  EXPECT_EQ(lines[1], "Thu 2026-01-29  ·············································▄██  1 h 15 min");
  EXPECT_EQ(lines[2], "Fri 2026-01-30  ██▄·············································  1 h 15 min");
  EXPECT_EQ(lines[3], "Sat 2026-01-31  ··················█x··▄·························  44 min");
  EXPECT_TRUE(lines[6].starts_with("2026-01-29 22:45  2 h 30 min")) << lines[6];
  EXPECT_TRUE(
      lines[6].ends_with("agents finished                    Claude Code 1 h                  covered"))
      << lines[6];
  EXPECT_NE(lines[7].find("20 -> 14 %  not covered"), std::string::npos) << lines[7];
  EXPECT_NE(lines[8].find("15 min (not held for 1 min)  goes on"), std::string::npos) << lines[8];
  EXPECT_EQ(lines[10], "Protected for 3 h 14 min in 3 episodes; 1 safety cut-off");
  EXPECT_EQ(lines[11], "Sleeps prevented: Claude Code 2");

  const json unheld{
      {"episodes",
       {episode(
           "2026-01-31T09:00:00Z", "2026-01-31T09:30:00Z",
           {{"workingSeconds", json::object()}, {"reasons", {"Running make"}}, {"unheldSeconds", 1800.0}})}}};
  const auto unheldLines = historyLines(unheld, 0, Palette(false), noon);
  EXPECT_EQ(unheldLines[1], "Sat 2026-01-31  ················································");
  EXPECT_NE(unheldLines[4].find("the hold ended"), std::string::npos) << "no agent was there to finish";
  EXPECT_EQ(unheldLines[6], "Protected for 0 s in 1 episode; 0 safety cut-offs");
  EXPECT_EQ(historyLines(json::object(), 0, Palette(false), noon).size(), 1U);
}

}  // namespace
}  // namespace vimbrel
