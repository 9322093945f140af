// SPDX-License-Identifier: Apache-2.0
#include "Presentation/TrayItem.h"

#include <algorithm>

#include "Presentation/TimeText.h"
#include "Say.h"

namespace vimbrel::desktop {
namespace {

using Kind = MenuEntry::Kind;

MenuEntry item(MenuAction action, std::string text) {
  return {.kind = Kind::item, .action = action, .text = std::move(text)};
}

MenuEntry line(std::string text) { return {.kind = Kind::item, .text = std::move(text), .isEnabled = false}; }

MenuEntry check(MenuAction action, std::string text, bool isChecked) {
  return {.kind = Kind::check, .action = action, .text = std::move(text), .isChecked = isChecked};
}

MenuEntry separator() { return {.kind = Kind::separator}; }

MenuEntry agentsMenu(const PublishedState& state, Instant now) {
  MenuEntry menu{.kind = Kind::submenu, .text = say("Agents")};
  for (const auto& family : familiesOf(state, now)) {
    const auto label = visualStateFor(family.aggregateState) == VimbrelVisualState::idle
                           ? displayLabel(VimbrelVisualState::idle)
                           : displayLabel(family.aggregateState);
    menu.children.push_back(line(retell(family.displayName()) + ": " + retell(label)));
  }
  if (menu.children.empty()) menu.children.push_back(line(say("No agents")));
  menu.children.push_back(separator());
  menu.children.push_back(item(MenuAction::agents, say("Connect Agents…")));
  return menu;
}

std::vector<MenuEntry> absentMenu(bool isStarting) {
  auto start = item(MenuAction::startApplication, say("Start Vimbrel"));
  start.isEnabled = !isStarting;
  return {line(isStarting ? say("Vimbrel is starting…") : say("Vimbrel is not running")),
          start,
          separator(),
          item(MenuAction::open, say("Open Vimbrel")),
          separator(),
          item(MenuAction::quit, say("Quit"))};
}

std::vector<MenuEntry> connectedMenu(const PublishedState& state, bool isPaused, Instant now) {
  std::vector<MenuEntry> menu{line(retell(state.statusDescription))};
  if (isPaused) menu.push_back(line(say("Paused until %1", {momentText(*state.pauseUntil, now)})));
  menu.push_back(agentsMenu(state, now));
  menu.push_back(separator());
  if (isPaused) {
    menu.push_back(item(MenuAction::resume, say("Resume")));
  } else {
    menu.push_back(item(MenuAction::pauseQuarterHour, say("Pause for 15 Minutes")));
    menu.push_back(item(MenuAction::pauseHour, say("Pause for 1 Hour")));
    menu.push_back(
        item(MenuAction::pauseUntilTomorrow, say("Pause until %1", {momentText(nextMorning(now), now)})));
  }
  menu.push_back(check(MenuAction::toggleManualHold, say("Keep Awake Now"), state.manualHoldEnabled));
  menu.push_back(check(MenuAction::toggleMaster, say("Protection"), state.masterEnabled));
  menu.push_back(separator());
  menu.push_back(item(MenuAction::open, say("Open Vimbrel")));
  menu.push_back(item(MenuAction::history, say("History and Usage…")));
  menu.push_back(item(MenuAction::settings, say("Settings…")));
  menu.push_back(item(MenuAction::diagnostics, say("Diagnostics…")));
  menu.push_back(item(MenuAction::introduction, say("Introduction…")));
  menu.push_back(separator());
  menu.push_back(item(MenuAction::quit, say("Quit")));
  return menu;
}

}  // namespace

TrayItem makeTrayItem(const Situation& situation, Instant now) {
  TrayItem tray;
  if (!situation.state) {
    const bool isStarting = situation.link == LinkStatus::starting;
    tray.isAbsent = true;
    tray.title =
        situation.link == LinkStatus::absent ? say("Vimbrel is not running") : say("Vimbrel is starting…");
    if (situation.link == LinkStatus::absent) tray.detail = say("This machine sleeps as it always does.");
    tray.menu = absentMenu(isStarting);
    return tray;
  }
  const auto& state = *situation.state;
  const auto display = displayStateOf(state, now);
  tray.visual = display.visualState;
  tray.isPaused = display.isPaused;
  tray.workingCount = display.activeWorkingAgentCount;
  tray.title = retell(state.statusDescription);
  if (const auto failing = failingHoldText(state); !failing.empty()) {
    tray.detail = failing;
  } else if (display.isPaused) {
    tray.detail = say("Paused until %1", {momentText(*state.pauseUntil, now)});
  } else if (state.decision.isHolding() && state.lid.cover == LidCoverage::Cover::uncovered) {
    tray.detail = say("Keep the lid open: %1", {retell(state.lid.explanation)});
  }
  tray.menu = connectedMenu(state, display.isPaused, now);
  return tray;
}

}  // namespace vimbrel::desktop
