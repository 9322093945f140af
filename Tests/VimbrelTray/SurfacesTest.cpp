// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>

#include "Avatar/Emblems.h"
#include "DesktopWorld.h"
#include "MadeCatalogue.h"
#include "Presentation/NotchPill.h"
#include "Presentation/PopoverContent.h"
#include "Presentation/TimeText.h"
#include "Presentation/TrayItem.h"
#include "Say.h"

namespace vimbrel::desktop {
namespace {

using nlohmann::json;
using testing::Contains;
using testing::ElementsAre;
using testing::Not;

std::vector<MenuAction> actionsOf(const TrayItem& tray) {
  std::vector<MenuAction> actions;
  for (const auto& entry : tray.menu) {
    if (entry.isEnabled && entry.action != MenuAction::none) actions.push_back(entry.action);
  }
  return actions;
}

TEST(PublishedState, survivesWhateverIsMissingOrOfAnotherType) {
  const auto whole = holding({{"budgets", {{{"agentType", "claude"}}}}});
  for (const auto& [key, unused] : whole.items()) {
    if (key == "decision") continue;
    for (const json& strange : {json(), json(7), json("text"), json::array({1, nullptr}), json::object()}) {
      auto state = whole;
      state[key] = strange;
      const auto read = publishedStateFromJson(state);
      ASSERT_TRUE(read) << key << " as " << strange;
      EXPECT_TRUE(read->decision.isHolding());
      EXPECT_NO_FATAL_FAILURE((void)makePopoverContent({LinkStatus::connected, *read}, noon));
    }
  }
  for (const auto& none : {json::object(), json::array(), published({{"decision", {{"sleepwalk", 1}}}})}) {
    EXPECT_FALSE(publishedStateFromJson(none)) << none;
  }
  // An unreadable session costs only itself.
  const auto state = *publishedStateFromJson(
      holding({{"sessions",
                {session("claude", "working", "a"), json{{"id", 3}}, session("codex", "waiting", "b")}}}));
  EXPECT_EQ(displayStateOf(state, noon).totalActiveSessionsCount, 2);
}

TEST(Emblems, tellAgentsApartOnAnyTileAndKnowHosts) {
  for (const PixelRGBA tile : {PixelRGBA{30, 30, 40, 255}, PixelRGBA{224, 165, 38, 255}}) {
    std::vector<PixelSpriteFrame> seen;
    for (const auto agent : allAgentTypes) {
      const auto emblem = agentEmblem(agent, tile);
      EXPECT_THAT(seen, Not(Contains(emblem))) << rawValue(agent);
      seen.push_back(emblem);
      int signPixels = 0;
      for (int at = 0; at < 256; ++at) {
        const auto pixel = emblem.at(at % 16, at / 16);
        const int contrast = std::abs(pixel.red - tile.red) + std::abs(pixel.green - tile.green) +
                             std::abs(pixel.blue - tile.blue);
        signPixels += pixel.alpha == 255 && contrast > 250 ? 1 : 0;
      }
      EXPECT_GT(signPixels, 20) << rawValue(agent) << ": the sign is seen on its tile";
    }
  }
  for (const auto& [name, kind] : {std::pair("org.kde.konsole", HostKind::terminal),
                                   {"tmux", HostKind::panes},
                                   {"Visual Studio Code", HostKind::editor},
                                   {"ssh: Terminal", HostKind::remote},
                                   {"Spreadsheet", HostKind::window}}) {
    EXPECT_EQ(hostKindOf(name), kind) << name;
  }
  EXPECT_EQ(agentOfHost("Cursor"), AgentType::cursor);
  EXPECT_EQ(agentOfHost("Terminal"), std::nullopt);
}

TEST(TrayItem, offersOnlyWhatCanBeDone) {
  using enum MenuAction;
  EXPECT_THAT(actionsOf(makeTrayItem({LinkStatus::absent, {}}, noon)),
              ElementsAre(startApplication, open, quit));
  // A second start while the first is under way would only fail on the lock of the first.
  EXPECT_THAT(actionsOf(makeTrayItem({LinkStatus::starting, {}}, noon)), ElementsAre(open, quit));
  for (const double left : {60.0, 0.0}) {
    const auto paused = published({{"pauseUntil", iso(noon + Seconds(left))}});
    const auto actions = actionsOf(makeTrayItem(connectedTo(paused), noon));
    EXPECT_EQ(std::ranges::count(actions, resume), left > 0 ? 1 : 0);
    EXPECT_EQ(std::ranges::count(actions, pauseHour), left > 0 ? 0 : 1);
  }
  for (const bool on : {false, true}) {
    const auto settings = published({{"settings", {{"masterEnabled", on}, {"manualHoldEnabled", !on}}}});
    const auto tray = makeTrayItem(connectedTo(settings), noon);
    EXPECT_EQ(std::ranges::find(tray.menu, toggleMaster, &MenuEntry::action)->isChecked, on);
    EXPECT_EQ(std::ranges::find(tray.menu, toggleManualHold, &MenuEntry::action)->isChecked, !on);
  }
}

TEST(TrayItem, showsTheMoodTheCountAndWhatIsWrong) {
  const auto well = makeTrayItem(connectedTo(holding()), noon);
  EXPECT_EQ(well.visual, VimbrelVisualState::working);
  EXPECT_EQ(well.workingCount, 1);
  EXPECT_EQ(well.title, "Active (1 working agent) — Claude Code working");
  EXPECT_EQ(well.detail, "");

  // The one thing that must never be overlooked: it should be awake and nothing keeps it so.
  const json refused{{"name", "logind"}, {"state", "refused"}, {"detail", "not allowed"}};
  const json unheld{{"system", false}, {"mechanismDetails", json::array({refused})}};
  const auto failing = makeTrayItem(connectedTo(holding({{"assertions", unheld}})), noon);
  EXPECT_EQ(failing.visual, VimbrelVisualState::error);
  EXPECT_EQ(failing.detail, "Nothing holds this machine awake: logind: not allowed");

  const json uncovered{{"cover", "uncovered"}, {"explanation", "no helper"}};
  EXPECT_EQ(makeTrayItem(connectedTo(holding({{"closedLid", uncovered}})), noon).detail,
            "Keep the lid open: no helper");
  EXPECT_TRUE(makeTrayItem({LinkStatus::absent, {}}, noon).isAbsent);
}

TEST(Popover, saysTheDecisionInAWordAndWhy) {
  const ScopedEnvironment zone{{"TZ", "UTC"}};
  const auto blocked = [](const char* block) {
    return published({{"decision", {{"blocked", {{"block", block}}}}}});
  };
  auto paused = blocked("Protection paused");
  paused["pauseUntil"] = iso(noon + Seconds(900));
  const struct {
    json state;
    std::string title;
    std::string reason;
    Tone tone;
  } cases[] = {
      {published(), "Sleep allowed", "No active agent sessions", Tone::plain},
      {holding(), "Awake", "Claude Code working", Tone::good},
      {holding({{"assertions", {{"system", false}}}}), "Not held", "Claude Code working", Tone::bad},
      {paused, "Paused", "Until 12:15", Tone::warning},
      {blocked("Thermal critical safety cutoff"), "Protection is off", "Thermal critical safety cutoff",
       Tone::bad},
      {blocked(rawValue(SafetyBlock::masterDisabled).data()), "Protection is off",
       std::string(rawValue(SafetyBlock::masterDisabled)), Tone::warning},
  };
  for (const auto& [state, title, reason, tone] : cases) {
    const auto content = makePopoverContent(connectedTo(state), noon);
    EXPECT_EQ(content.title, title);
    EXPECT_EQ(content.reason, reason);
    EXPECT_EQ(content.tone, tone) << title;
    EXPECT_EQ(content.countsFrom.has_value(), state["protectionStartedAt"].is_string()) << title;
  }
  // What is equal is not drawn again: the running time is the view's business.
  const auto still = connectedTo(holding({{"sessions", json::array()}}));
  EXPECT_EQ(makePopoverContent(still, noon), makePopoverContent(still, noon + Seconds(9)));
}

TEST(Popover, showsAFamilyWithItsBudgetsHostsAndSessions) {
  const auto report = json::parse(R"json({"agentType":"claude","source":"claude",
    "context":{"type":"known","value":{"contextWindow":200000,"tokensConsumed":170000,"tokensRemaining":30000,
      "percentageRemaining":15.0,"percentageUsed":85.0},"confidence":1.0,"source":"log"},
    "quota":{"type":"known","value":{"percentageRemaining":45.0},"confidence":1.0,"source":"log"},
    "sessionUsage":{"recordedAt":"2026-01-31T11:59:00Z"},"lastUpdated":"2026-01-31T11:59:00Z"})json");
  auto first = session("claude", "working", "s1");
  first["cwd"] = "/srv/project";
  first["pid"] = 4711;
  auto second = session("claude", "waiting", "s2");
  second["hostAppName"] = "Zed";
  const auto content =
      makePopoverContent(connectedTo(holding({{"sessions", {first, second}}, {"budgets", {report}}})), noon);
  ASSERT_EQ(content.families.size(), 1U);
  const auto& row = content.families.front();
  EXPECT_EQ(row.name + ", " + row.state + ", " + row.subtitle, "Claude Code, Working, 2 sessions active");
  ASSERT_EQ(row.bars.size(), 2U);
  EXPECT_EQ(row.bars[0].text, "15 % left");
  EXPECT_TRUE(row.bars[0].isLow);
  EXPECT_FALSE(row.bars[1].isLow);
  ASSERT_EQ(row.hosts.size(), 2U);
  EXPECT_EQ(row.hosts[0].name, "Terminal");
  EXPECT_EQ(row.hosts[0].sessions[0].title, "/srv/project");
  EXPECT_EQ(row.hosts[0].sessions[0].detail, "Working · 40 s ago · pid 4711");
  EXPECT_EQ(row.hosts[1].name, "Zed");
}

TEST(Popover, powerLineTellsTheBatteryAgainstItsFloor) {
  const auto lineFor = [](std::optional<int> percent, bool isOnAC, int floor = 15,
                          json changes = json::object()) {
    json power{{"isCharging", false}, {"isOnAC", isOnAC}, {"isLowPowerMode", false}};
    if (percent) power["batteryPercent"] = *percent;
    if (!isOnAC) power["timeRemainingMinutes"] = 190;
    changes.update({{"power", power}, {"settings", {{"batteryFloorPercent", floor}}}});
    return makePowerLine(*publishedStateFromJson(published(changes)));
  };
  EXPECT_EQ(lineFor(21, false).powerTone, Tone::plain);
  EXPECT_EQ(lineFor(20, false).powerTone, Tone::warning);
  EXPECT_EQ(lineFor(15, false).powerTone, Tone::bad);
  EXPECT_EQ(lineFor(15, true).powerTone, Tone::plain);
  EXPECT_EQ(lineFor(15, true).power, "AC power, battery 15 %");
  EXPECT_EQ(lineFor(71, false).power, "Battery 71 %, 3 h 10 min left");
  EXPECT_EQ(lineFor({}, true).power, "AC power");
  EXPECT_FALSE(lineFor({}, true).batteryPercent);
  // A floor beyond its bounds, written into the file by hand, is shown as the policy takes it.
  EXPECT_EQ(lineFor(60, false, 70).floorPercent, 50);
  EXPECT_EQ(lineFor(80, true, 15, {{"closedLid", {{"cover", "covered"}}}, {"lidClosed", true}}).lid,
            "Lid closed, may be closed");
}

TEST(Popover, whenNothingRunsItOffersWhatHelps) {
  using Offer = PopoverContent::Offer;
  EXPECT_EQ(makePopoverContent({LinkStatus::absent, {}}, noon).offer, Offer::start);
  EXPECT_EQ(makePopoverContent({LinkStatus::starting, {}}, noon).offer, Offer::waitForStart);
  EXPECT_EQ(makePopoverContent(connectedTo(published()), noon).offer, Offer::connectAgents);
  EXPECT_EQ(makePopoverContent(connectedTo(holding()), noon).offer, Offer::nothing);
}

TEST(Notch, namesWhatHappened) {
  const auto claudeWorks = session("claude", "working", "a");
  const auto claudeWaits = session("claude", "waiting", "c");
  const auto codexWaits = session("codex", "waiting", "b");
  for (const auto& [state, text] : std::vector<std::pair<json, std::string>>{
           {published(), "Sleep allowed"},
           {holding(), "1 working"},
           {holding({{"sessions", {claudeWorks, codexWaits}}}), "1 working, 1 waiting"},
           {holding({{"sessions", {codexWaits}}}), "Codex CLI is waiting for you"},
           {holding({{"sessions", {codexWaits, claudeWaits}}}), "2 agents are waiting"},
           {published({{"sessions", {session("aider", "completed", "d")}}}), "Aider is done"},
           {holding({{"assertions", {{"system", false}}}}), "Not held awake"},
       }) {
    EXPECT_EQ(makeNotchPill(*publishedStateFromJson(state), noon).text, text);
  }
}

TEST(Notch, isThereForAWhileAfterAChangeAndNeverForever) {
  const NotchPill first{.workingCount = 1, .text = "1 working"};
  const NotchPill second{.workingCount = 2, .text = "2 working"};
  NotchSchedule schedule(NotchMode::onChange);
  schedule.update(first, noon);
  EXPECT_FALSE(schedule.isShown(noon)) << "the first state is no change";
  schedule.update(second, noon + Seconds(10));
  EXPECT_TRUE(schedule.isShown(noon + Seconds(10)));
  EXPECT_EQ(schedule.nextChange(noon + Seconds(11)), noon + Seconds(14));
  schedule.update(second, noon + Seconds(13));
  EXPECT_FALSE(schedule.isShown(noon + Seconds(14))) << "an equal state does not prolong it";
  EXPECT_EQ(schedule.nextChange(noon + Seconds(14)), std::nullopt);
  schedule.update(first, noon + Seconds(20));
  EXPECT_FALSE(schedule.isShown(noon - Seconds(1))) << "the clock was set back";
  schedule.update(std::nullopt, noon + Seconds(21));
  EXPECT_FALSE(schedule.isShown(noon + Seconds(21))) << "nothing runs";
  schedule.setMode(NotchMode::always);
  EXPECT_FALSE(schedule.isShown(noon + Seconds(22)));
  schedule.update(first, noon + Seconds(23));
  EXPECT_TRUE(schedule.isShown(noon + Seconds(1e6)));
  schedule.setMode(NotchMode::never);
  EXPECT_FALSE(schedule.isShown(noon + Seconds(23)));
}

TEST(TimeText, tomorrowIsTheMorningAfterTheSleep) {
  const ScopedEnvironment zone{{"TZ", "Europe/Berlin"}};
  for (const auto& [now, morning] : {
           std::pair("2026-01-31T12:00:00Z", "2026-02-01T05:00:00Z"),  // midday
           {"2026-01-31T00:30:00Z", "2026-01-31T05:00:00Z"},           // half past one at night
           {"2026-01-31T03:30:00Z", "2026-02-01T05:00:00Z"},           // half past four: too soon to be meant
           {"2026-03-28T20:00:00Z", "2026-03-29T04:00:00Z"},  // the night in which summer time begins
       }) {
    EXPECT_EQ(iso(nextMorning(*parseIso8601(now))), morning) << now;
  }
  EXPECT_EQ(momentText(*parseIso8601("2026-02-01T05:00:00Z"), noon), "tomorrow, 06:00");
  EXPECT_EQ(momentText(*parseIso8601("2026-01-31T13:05:00Z"), noon), "14:05");
}

TEST(TimeText, runningTime) {
  EXPECT_EQ(runningText(Seconds(-3)), "0:00");
  EXPECT_EQ(runningText(Seconds(3725)), "1:02:05");
  EXPECT_EQ(runningText(Seconds(3 * 86400 + 4 * 3600 + 65.9)), "3 d 4:01:05");
}

TEST(TrayItem, looksUpEveryTextOfItsOwn) {
  const Situation absent{LinkStatus::absent, {}};
  CatalogueTexts texts;
  for (const auto& entry : makeTrayItem(absent, noon).menu) texts[entry.text] = "<" + entry.text + ">";
  speak(madeCatalogue(texts));
  for (const auto& entry : makeTrayItem(absent, noon).menu) {
    if (entry.kind == MenuEntry::Kind::separator) continue;
    EXPECT_THAT(entry.text, testing::StartsWith("<"));
  }
  speak(nullptr);
}

}  // namespace
}  // namespace vimbrel::desktop
