// SPDX-License-Identifier: Apache-2.0
#include "Simulation/Recomputation.h"

#include <algorithm>

#include "Domain/VimbrelVisualState.h"
#include "Power/BatteryMonitor.h"
#include "Power/LidMonitor.h"
#include "Power/ThermalMonitor.h"
#include "Power/WakePolicyEngine.h"
#include "System/FilePreferences.h"
#include "System/SettingDescriptions.h"

namespace vimbrel {

std::optional<std::string> differenceFromScratch(SimulatedApplication& application) {
  auto& app = application.app();
  auto& coordinator = app.coordinator();
  const auto services = application.machine().services();

  const SettingsStore settings(
      std::make_shared<FilePreferences>(application.settingsPath(), settingDescriptions()),
      application.time());
  // A file that cannot be used leaves the last values in force, which nobody else can know.
  const bool isReadable = settings.warnings().empty();
  for (const auto& setting : settingDescriptions()) {
    if (isReadable && settings.value(setting.key) != app.settings().value(setting.key)) {
      return "the setting is not what its file says: " + std::string(setting.key);
    }
  }

  const auto power = BatteryMonitor(services.powerSources).currentSnapshot();
  const auto heat = ThermalMonitor(services.thermalPressure).currentThermalState();
  const auto& parts = coordinator.parts();
  if (parts.batteryMonitor->currentSnapshot() != power) return "the published power is not the machine's";
  if (parts.thermalMonitor->currentThermalState() != heat) return "the published heat is not the machine's";
  if (parts.lidMonitor->isLidClosed() != LidMonitor(services.lidSwitch).isLidClosed()) {
    return "the published lid is not the machine's";
  }

  auto newestFirst = app.agents().sessions().entries();
  std::ranges::stable_sort(
      newestFirst, [](const auto& left, const auto& right) { return left->startedAt > right->startedAt; });
  const auto& published = coordinator.activeSessionsList().get();
  if (!std::ranges::equal(
          published, newestFirst, {}, [](const auto& session) -> const auto& { return *session; },
          [](const auto& session) -> const auto& { return *session; })) {
    return "the published sessions are not those of the table";
  }
  auto context = *coordinator.lastContext();
  static const PresentationValues::BudgetReports none;
  const auto& reports = app.usage() ? app.usage()->latestBudgetReports().get() : none;
  if (app.presentation().agentFamilies().get() !=
      AgentFamilyPresentation::buildFamilies(newestFirst, reports, context.now)) {
    return "the rows of the agents are not those of the sessions";
  }
  const auto& decision = coordinator.currentDecision().get();
  if (app.presentation().dominantVisualState().get() != aggregateVisualState(newestFirst, decision)) {
    return "the mood is not that of the sessions";
  }

  context.sessions = app.agents().sessions();
  context.powerSource = power;
  context.thermalState = heat;
  if (isReadable) {
    context.config = settings.policyConfig();
    context.pauseUntil = settings.pauseUntil();
  }
  if (WakePolicyEngine().evaluate(context) != decision) {
    return "the published decision is not what follows from the machine, the settings and the sessions";
  }
  return std::nullopt;
}

}  // namespace vimbrel
