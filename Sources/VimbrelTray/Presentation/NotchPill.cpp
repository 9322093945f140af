// SPDX-License-Identifier: Apache-2.0
#include "Presentation/NotchPill.h"

#include <algorithm>

#include "Say.h"

namespace vimbrel::desktop {
namespace {

/// The names of the families in one state, when they are few enough for a pill.
std::string onlyFamilyIn(const std::vector<AgentFamilyPresentation>& families, AgentState state) {
  const auto isIn = [&](const auto& family) {
    return std::ranges::any_of(family.sessions, [&](const auto& session) { return session->state == state; });
  };
  if (std::ranges::count_if(families, isIn) != 1) return {};
  return retell(std::ranges::find_if(families, isIn)->displayName());
}

std::string pillText(const PublishedState& state, const NotchPill& pill, Instant now) {
  if (!failingHoldText(state).empty()) return say("Not held awake");
  if (const auto* blocked = state.decision.asBlocked()) return retell(rawValue(blocked->block));
  const auto families = familiesOf(state, now);
  if (pill.visual == VimbrelVisualState::waiting) {
    const auto name = onlyFamilyIn(families, AgentState::waiting);
    return name.empty() ? sayCount(pill.waitingCount, "%1 agent is waiting", "%1 agents are waiting")
                        : say("%1 is waiting for you", {name});
  }
  if (pill.workingCount > 0) {
    const auto working = sayCount(pill.workingCount, "%1 working", "%1 working");
    if (pill.waitingCount == 0) return working;
    return say("%1, %2 waiting", {working, std::to_string(pill.waitingCount)});
  }
  if (pill.visual == VimbrelVisualState::error) return say("An agent failed");
  if (pill.visual == VimbrelVisualState::completed) {
    const auto name = onlyFamilyIn(families, AgentState::completed);
    return name.empty() ? say("Agents are done") : say("%1 is done", {name});
  }
  return state.decision.isHolding() ? say("Awake") : say("Sleep allowed");
}

}  // namespace

NotchMode notchModeOf(const PublishedState& state) {
  if (!state.notchEnabled) return NotchMode::never;
  return state.notchAlwaysVisible ? NotchMode::always : NotchMode::onChange;
}

NotchPill makeNotchPill(const PublishedState& state, Instant now) {
  NotchPill pill;
  pill.visual = displayStateOf(state, now).visualState;
  for (const auto& session : state.sessions) {
    if (session->state == AgentState::working) ++pill.workingCount;
    if (session->state == AgentState::waiting) ++pill.waitingCount;
  }
  pill.text = pillText(state, pill, now);
  return pill;
}

void NotchSchedule::update(const std::optional<NotchPill>& pill, Instant now) {
  if (pill_ && pill && *pill_ != *pill) changedAt_ = now;
  if (!pill) changedAt_.reset();
  pill_ = pill;
}

bool NotchSchedule::isShown(Instant now) const {
  if (!pill_ || mode_ == NotchMode::never) return false;
  if (mode_ == NotchMode::always) return true;
  // A clock that was set back must not leave the pill on the screen.
  return changedAt_ && now - *changedAt_ < showTime && now >= *changedAt_;
}

std::optional<Instant> NotchSchedule::nextChange(Instant now) const {
  if (mode_ != NotchMode::onChange || !isShown(now)) return std::nullopt;
  return *changedAt_ + showTime;
}

}  // namespace vimbrel::desktop
