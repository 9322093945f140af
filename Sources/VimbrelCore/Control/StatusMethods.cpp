// SPDX-License-Identifier: Apache-2.0
#include "Control/StatusMethods.h"

#include <unistd.h>

#include <cstdint>
#include <ranges>

#include "Control/AgentDocuments.h"
#include "Control/DeepHoldMethods.h"
#include "Control/PresentationDocument.h"
#include "Control/RpcResult.h"
#include "Control/SettingsMethods.h"
#include "Domain/AgentSessionCodec.h"
#include "Domain/PowerSourceSnapshotCodec.h"
#include "Domain/WakeDecisionCodec.h"
#include "Support/Sentence.h"

namespace vimbrel {

using nlohmann::json;

namespace {

json dateOrNull(std::optional<Instant> instant) {
  return instant ? json(formatIso8601(*instant)) : json(nullptr);
}

std::string_view rawValue(MechanismState state) {
  switch (state) {
    case MechanismState::available:
      return sentence("available");
    case MechanismState::granted:
      return sentence("granted");
    case MechanismState::refused:
      return sentence("refused");
    case MechanismState::missing:
      break;
  }
  return sentence("missing");
}

json assertionsOf(const ControlledApplication& application) {
  const auto& controller = *application.coordinator.parts().idleAssertionController;
  json granted = json::array();
  json details = json::array();
  for (const auto& mechanism : application.platform.assertions->mechanisms()) {
    if (mechanism.state == MechanismState::granted) granted.push_back(mechanism.name);
    details.push_back(
        {{"name", mechanism.name}, {"state", rawValue(mechanism.state)}, {"detail", mechanism.detail}});
  }
  return {{"system", controller.isActive()},
          {"display", controller.isDisplayActive()},
          {"simulated", application.platform.assertions->isSimulated()},
          {"mechanisms", std::move(granted)},
          {"mechanismDetails", std::move(details)}};
}

json sessionsOf(AppCoordinator& coordinator, std::ptrdiff_t maximum = PTRDIFF_MAX) {
  json sessions = json::array();
  for (const auto& session : coordinator.activeSessionsList().get() | std::views::take(maximum)) {
    sessions.push_back(json(toJson(*session, DateCoding::iso8601)));
  }
  return sessions;
}

json warningsOf(AppCoordinator& coordinator) {
  json warnings = coordinator.settings().warnings();
  if (const auto& error = coordinator.hookReceiverError()) {
    warnings.push_back(sentence("agents' hooks are not heard: %1", {error->text}));
  }
  return warnings;
}

}  // namespace

json statusDocument(const ControlledApplication& application) {
  auto& coordinator = application.coordinator;
  const auto& decision = coordinator.currentDecision().get();
  const auto pauseUntil = coordinator.settings().pauseUntil();
  const bool isPaused = pauseUntil && *pauseUntil > application.clock.now();
  json state{
      {"decision", json(toJson(decision))},
      {"statusDescription", decision.statusDescription()},
      {"isHolding", decision.isHolding()},
      {"elapsedProtectionSeconds", coordinator.elapsedProtectionSeconds()},
      {"protectionStartedAt", dateOrNull(coordinator.protectionStartedAt().get())},
      {"sessions", sessionsOf(coordinator)},
      {"power", json(toJson(coordinator.parts().batteryMonitor->currentSnapshot()))},
      {"thermalState", rawValue(coordinator.parts().thermalMonitor->currentThermalState())},
      {"lidClosed", coordinator.parts().lidMonitor->isLidClosed()},
      {"closedLid", closedLidDocument(application)},
      {"commandHolds", commandHoldsDocument(application)},
      {"pauseUntil", isPaused ? dateOrNull(pauseUntil) : json(nullptr)},
      {"assertions", assertionsOf(application)},
      {"settings", settingValues(coordinator.settings())},
      {"warnings", warningsOf(coordinator)},
      {"lastEvents", application.lastHookEvents == nullptr
                         ? json::object()
                         : lastEventsDocument(application.lastHookEvents->all())},
  };
  state.update(presentationDocument(application));
  return state;
}

json summaryDocument(const ControlledApplication& application, std::size_t maximumSessions) {
  auto& coordinator = application.coordinator;
  const auto& decision = coordinator.currentDecision().get();
  return {{"statusDescription", decision.statusDescription()},
          {"isHolding", decision.isHolding()},
          {"sessions", sessionsOf(coordinator, static_cast<std::ptrdiff_t>(maximumSessions))},
          {"sessionCount", coordinator.activeSessionsList().get().size()},
          {"assertions", assertionsOf(application)}};
}

Token addStatusMethods(ControlServer& server, const ControlledApplication& application) {
  server.methods().add("status",
                       [application](const json&) -> RpcResult { return statusDocument(application); });
  server.methods().add("sessions", [application](const json&) -> RpcResult {
    return json{{"sessions", sessionsOf(application.coordinator)}};
  });
  server.methods().add("version", [application, &server](const json&) -> RpcResult {
    return json{{"version", application.version},
                {"protocol", 1},
                {"pid", ::getpid()},
                {"simulated", application.platform.assertions->isSimulated()},
                {"methods", server.methods().methodNames()}};
  });
  server.setState([application] { return statusDocument(application); }, {"elapsedProtectionSeconds"});
  const auto changed = [&server] { server.stateDidChange(); };
  auto tokens = std::make_shared<std::vector<Token>>();
  tokens->push_back(application.coordinator.stateChanged().subscribe(changed));
  if (application.presentation != nullptr) {
    tokens->push_back(application.presentation->agentFamilies().subscribe(changed));
    tokens->push_back(application.presentation->dominantVisualState().subscribe(changed));
  }
  if (application.usage != nullptr) {
    tokens->push_back(application.usage->latestBudgetReports().subscribe(changed));
    tokens->push_back(application.usage->lowBudgetAlerts().subscribe(changed));
  }
  return Token{[tokens] { tokens->clear(); }};
}

}  // namespace vimbrel
