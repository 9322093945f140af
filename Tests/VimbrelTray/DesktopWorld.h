// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "Presentation/Link.h"
#include "ScopedEnvironment.h"

namespace vimbrel::desktop {

inline const Instant noon = *parseIso8601("2026-01-31T12:00:00Z");

inline std::string iso(Instant moment) { return formatIso8601(moment); }

/// A session as the control socket sends it.
inline nlohmann::json session(const std::string& agent, const std::string& state, const std::string& id,
                              Instant lastEvent = noon - Seconds(40), const std::string& type = "lifecycle") {
  return {{"id", id},
          {"agentType", agent},
          {"state", state},
          {"startedAt", iso(noon - Seconds(600))},
          {"lastEventAt", iso(lastEvent)},
          {"integrationType", type},
          {"confidence", 1.0}};
}

/// A state as the control socket sends it: nothing going on, on AC power. `changes` replaces members.
inline nlohmann::json published(const nlohmann::json& changes = nlohmann::json::object()) {
  auto state = nlohmann::json::parse(R"({
    "decision":{"release":{"reason":"No active agent sessions"}},
    "statusDescription":"Sleep enabled — No active agent sessions",
    "protectionStartedAt":null,"pauseUntil":null,"sessions":[],"budgets":[],"warnings":[],
    "power":{"batteryPercent":80,"isCharging":false,"isLowPowerMode":false,"isOnAC":true},
    "thermalState":"nominal","lidClosed":false,"closedLid":{"cover":"off"},
    "assertions":{"system":false,"display":false,"simulated":false,"mechanismDetails":[]},
    "settings":{"masterEnabled":true,"manualHoldEnabled":false,"batteryFloorPercent":15}})");
  state.update(changes);
  return state;
}

/// What holds while an agent works.
inline nlohmann::json holding(const nlohmann::json& changes = nlohmann::json::object()) {
  auto state = published({
      {"decision",
       {{"hold", {{"reason", "Claude Code working"}, {"activeAgentCount", 1}, {"requiresDeepHold", true}}}}},
      {"statusDescription", "Active (1 working agent) — Claude Code working"},
      {"protectionStartedAt", iso(noon - Seconds(125))},
      {"sessions", {session("claude", "working", "s1")}},
      {"assertions", {{"system", true}, {"simulated", false}}},
  });
  state.update(changes);
  return state;
}

inline Situation connectedTo(const nlohmann::json& state) {
  return {.link = LinkStatus::connected, .state = *publishedStateFromJson(state)};
}

}  // namespace vimbrel::desktop
