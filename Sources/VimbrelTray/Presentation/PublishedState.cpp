// SPDX-License-Identifier: Apache-2.0
#include "Presentation/PublishedState.h"

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>

#include "Domain/AgentSessionCodec.h"
#include "Domain/BudgetCodec.h"
#include "Domain/PowerSourceSnapshotCodec.h"
#include "Domain/WakeDecisionCodec.h"
#include "Presentation/JsonFields.h"
#include "Say.h"

namespace vimbrel::desktop {

using nlohmann::json;

namespace {

SessionList sessionsOf(const json& list) {
  SessionList sessions;
  for (const auto& each : list) {
    if (auto session = agentSessionFromJson(each, DateCoding::iso8601)) {
      sessions.push_back(std::make_shared<const AgentSession>(std::move(*session)));
    }
  }
  return sessions;
}

std::map<AgentType, ProviderBudgetReport> budgetsOf(const json& list) {
  std::map<AgentType, ProviderBudgetReport> budgets;
  for (const auto& each : list) {
    if (auto report = providerBudgetReportFromJson(each, DateCoding::iso8601)) {
      budgets.insert_or_assign(report->agentType, std::move(*report));
    }
  }
  return budgets;
}

LidCoverage lidOf(const json& object) {
  using Cover = LidCoverage::Cover;
  constexpr std::array names{std::pair("off", Cover::off), std::pair("notNeeded", Cover::notNeeded),
                             std::pair("covered", Cover::covered), std::pair("uncovered", Cover::uncovered)};
  LidCoverage lid;
  const auto cover = textOf(object, "cover");
  for (const auto& [name, value] : names) {
    if (cover == name) lid.cover = value;
  }
  lid.coveredBy = textOf(object, "coveredBy");
  lid.explanation = textOf(object, "explanation");
  lid.remedy = textOf(object, "remedy");
  return lid;
}

std::string notHeldReason(const json& mechanisms) {
  std::string reason;
  for (const auto& mechanism : mechanisms) {
    const auto state = textOf(mechanism, "state");
    if (state != "refused" && state != "missing") continue;
    if (!reason.empty()) reason += "; ";
    reason += retell(textOf(mechanism, "name")) + ": " + retell(textOf(mechanism, "detail"));
  }
  return reason;
}

void readSettings(const json& settings, PublishedState& state) {
  state.masterEnabled = flagOf(settings, "masterEnabled", true);
  state.manualHoldEnabled = flagOf(settings, "manualHoldEnabled");
  state.preventDisplaySleep = flagOf(settings, "preventDisplaySleep");
  state.onlyOnAC = flagOf(settings, "onlyOnAC");
  state.hasCompletedOnboarding = flagOf(settings, "hasCompletedOnboarding", true);
  state.notchEnabled = flagOf(settings, "notchEnabled", true);
  state.notchAlwaysVisible = flagOf(settings, "notchAlwaysVisible");
  // The policy keeps the floor within these bounds, whatever the file says.
  state.batteryFloorPercent = std::clamp<std::int64_t>(integerOf(settings, "batteryFloorPercent", 15), 5, 50);
}

}  // namespace

bool PublishedState::operator==(const PublishedState& other) const {
  const auto fields = [](const PublishedState& s) {
    return std::tie(s.decision, s.statusDescription, s.protectionStartedAt, s.budgets, s.visualState, s.power,
                    s.thermal, s.isLidClosed, s.lid, s.pauseUntil, s.isSystemHeld, s.isSimulated,
                    s.notHeldBecause, s.warnings, s.masterEnabled, s.manualHoldEnabled, s.preventDisplaySleep,
                    s.onlyOnAC, s.batteryFloorPercent, s.hasCompletedOnboarding, s.notchEnabled,
                    s.notchAlwaysVisible);
  };
  return fields(*this) == fields(other) &&
         std::ranges::equal(sessions, other.sessions,
                            [](const auto& left, const auto& right) { return *left == *right; });
}

std::expected<PublishedState, std::string> publishedStateFromJson(const json& value) {
  auto decision = wakeDecisionFromJson(memberOf(value, "decision"));
  if (!decision) return std::unexpected(say("the state has no decision that can be read"));
  PublishedState state;
  state.decision = std::move(*decision);
  state.statusDescription = textOf(value, "statusDescription");
  if (state.statusDescription.empty()) state.statusDescription = state.decision.statusDescription();
  state.protectionStartedAt = instantOf(value, "protectionStartedAt");
  state.sessions = sessionsOf(memberOf(value, "sessions"));
  state.budgets = budgetsOf(memberOf(value, "budgets"));
  const auto visual = visualStateFromRawValue(textOf(value, "visualState"));
  state.visualState = visual ? *visual : aggregateVisualState(state.sessions, state.decision);
  if (auto power = powerSourceSnapshotFromJson(memberOf(value, "power"))) state.power = *power;
  state.thermal =
      systemThermalStateFromRawValue(textOf(value, "thermalState")).value_or(SystemThermalState::nominal);
  state.isLidClosed = flagOf(value, "lidClosed");
  state.lid = lidOf(memberOf(value, "closedLid"));
  state.pauseUntil = instantOf(value, "pauseUntil");
  const auto& assertions = memberOf(value, "assertions");
  state.isSystemHeld = flagOf(assertions, "system");
  state.isSimulated = flagOf(assertions, "simulated");
  state.notHeldBecause = notHeldReason(memberOf(assertions, "mechanismDetails"));
  for (const auto& warning : memberOf(value, "warnings")) {
    if (warning.is_string()) state.warnings.push_back(warning.get<std::string>());
  }
  readSettings(memberOf(value, "settings"), state);
  return state;
}

std::string failingHoldText(const PublishedState& state) {
  if (!state.decision.isHolding() || state.isSystemHeld) return {};
  return state.notHeldBecause.empty() ? say("Nothing holds this machine awake: it can fall asleep")
                                      : say("Nothing holds this machine awake: %1", {state.notHeldBecause});
}

VimbrelDisplayState displayStateOf(const PublishedState& state, Instant now) {
  VimbrelDisplayState display;
  display.visualState = failingHoldText(state).empty() ? state.visualState : VimbrelVisualState::error;
  display.activeWorkingAgentCount = std::ranges::count_if(
      state.sessions, [](const auto& session) { return session->state == AgentState::working; });
  display.totalActiveSessionsCount =
      std::ranges::count_if(state.sessions, [](const auto& session) { return session->isWorking(); });
  display.decision = state.decision;
  display.batteryPercent = state.power.batteryPercent;
  display.isCharging = state.power.isCharging;
  display.isOnAC = state.power.isOnAC;
  display.isPaused = state.pauseUntil && *state.pauseUntil > now;
  if (display.isPaused) display.pauseRemainingSeconds = (*state.pauseUntil - now).count();
  display.lidHoldActive = state.lid.cover == LidCoverage::Cover::covered;
  if (state.protectionStartedAt) {
    display.elapsedProtectionSeconds = std::max((now - *state.protectionStartedAt).count(), 0.0);
  }
  return display;
}

std::vector<AgentFamilyPresentation> familiesOf(const PublishedState& state, Instant now) {
  return AgentFamilyPresentation::buildFamilies(state.sessions, state.budgets, now);
}

}  // namespace vimbrel::desktop
