// SPDX-License-Identifier: Apache-2.0
#include "System/Application.h"

#include <algorithm>
#include <cassert>
#include <iterator>
#include <utility>

#include "AgentMonitoring/ProcessMonitor.h"
#include "DeepHold/HelperSocketPath.h"
#include "DeepHold/SimulatedHelper.h"
#include "Power/BatteryMonitor.h"
#include "Power/IdleWakeAssertionController.h"
#include "Power/LidMonitor.h"
#include "Power/ThermalMonitor.h"
#include "Support/Directories.h"
#include "System/SettingDescriptions.h"

namespace vimbrel {

ApplicationDirectories ApplicationDirectories::ofUser() {
  return {.home = directories::home(),
          .applicationSupport = directories::applicationSupport(),
          .configuration = directories::configuration()};
}

Application::Application(PlatformServices platform, QueueProvider& queues, const Clock& clock,
                         const ApplicationDirectories& directories, ApplicationOptions options)
    : platform_(std::move(platform)),
      mainQueue_(queues.mainQueue()),
      preferences_(std::make_shared<FilePreferences>(
          directories.configuration + "/com.vimbrel.app/settings.json", settingDescriptions())) {
  CoordinatorParts parts;
  parts.mainQueue = mainQueue_;
  parts.settings = std::make_shared<SettingsStore>(preferences_, clock);
  parts.agentCoordinator = std::make_shared<AgentStateCoordinator>(clock);
  parts.idleAssertionController = std::make_shared<IdleWakeAssertionController>(platform_.assertions);
  parts.batteryMonitor = std::make_shared<BatteryMonitor>(platform_.powerSources);
  parts.thermalMonitor = std::make_shared<ThermalMonitor>(platform_.thermalPressure);
  parts.lidMonitor = std::make_shared<LidMonitor>(platform_.lidSwitch);
  assert(options.hookReceiver);
  parts.hookReceiver = std::move(options.hookReceiver);
  // On the main thread: a scan that finds nothing new costs less than the wakeup of another thread would.
  parts.processMonitor = std::make_shared<ProcessMonitor>(
      queues.makeQueue("com.vimbrel.processmonitor", QueueHome::mainThread), clock, platform_.processList,
      platform_.runningApplications, directories.home);
  const bool isMachines = options.helper == ApplicationOptions::Helper::machine;
  deepSleepController_ = isMachines
                             ? std::make_shared<DeepSleepController>(queues, std::nullopt)
                             : std::make_shared<DeepSleepController>(
                                   queues, std::string(systemHelperSocketPath), simulatedHelper(clock));
  deepHold_ = std::make_shared<DeepHoldService>(deepSleepController_, mainQueue_, clock,
                                                deepSleepController_->socketPath() == systemHelperSocketPath);
  commandHolds_ = std::make_shared<CommandHolds>();
  parts.services = {deepHold_, commandHolds_};
  std::ranges::move(options.services, std::back_inserter(parts.services));
  coordinator_ = AppCoordinator::create(std::move(parts), clock);
}

Application::~Application() = default;

void Application::start() {
  preferences_->watch(*mainQueue_);
  coordinator_->start();
}

}  // namespace vimbrel
