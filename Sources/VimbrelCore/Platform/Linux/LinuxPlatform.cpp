// SPDX-License-Identifier: Apache-2.0
#include "Platform/Linux/LinuxPlatform.h"

#include <algorithm>

#include "Platform/Linux/DesktopApplications.h"
#include "Platform/Linux/DesktopServices.h"
#include "Platform/Linux/LinuxExamination.h"
#include "Platform/Linux/LinuxLidSwitch.h"
#include "Platform/Linux/LinuxSleepAssertions.h"
#include "Platform/Linux/ProcAncestry.h"
#include "Platform/Linux/ProcProcessList.h"
#include "Platform/Linux/SysfsPowerSources.h"
#include "Platform/Linux/ThermalZones.h"

namespace vimbrel {
namespace {
const SystemClock machineClock;  // without state, so one serves everybody
}

PlatformServices makeLinuxPlatform(QueueProvider& queues) {
  const auto queue = queues.mainQueue();
  const auto systemBus = std::make_shared<BusConnection>(BusKind::system, queue);
  const auto sessionBus = std::make_shared<BusConnection>(BusKind::session, queue);
  const auto surroundings = LinuxSurroundings::fromProcess();
  const auto assertions =
      std::make_shared<LinuxSleepAssertions>(queue, systemBus, sessionBus, surroundings.currentDesktop);
  const auto powerSources = std::make_shared<SysfsPowerSources>(queue, systemBus, "/sys");
  const auto thermalZones = std::make_shared<ThermalZones>(queue, "/sys");
  const auto lid = std::make_shared<LinuxLidSwitch>(queue, systemBus, "/sys", "/proc");
  const auto processes = std::make_shared<ProcessTable>(machineClock);
  assertions->waitUntilKnown();

  PlatformServices services;
  services.assertions = assertions;
  services.powerSources = powerSources;
  services.thermalPressure = thermalZones;
  services.lidSwitch = lid;
  services.processList = std::make_shared<ProcProcessList>(processes);
  services.runningApplications =
      std::make_shared<DesktopApplications>(processes, machineClock, DesktopEnvironment::fromProcess());
  services.processAncestry = std::make_shared<ProcAncestry>();
  addDesktopServices(services, queue, sessionBus);
  PlatformServices desktop;
  desktop.notificationCenter = services.notificationCenter;
  desktop.loginItem = services.loginItem;
  services.examine = [assertions, powerSources, thermalZones, lid, desktop] {
    auto findings = examineLinux(*assertions, *powerSources, *thermalZones, *lid);
    for (auto& finding : examineDesktop(desktop)) findings.push_back(std::move(finding));
    return findings;
  };
  services.describeSystem = describeLinux;
  services.listAssertions = listLinuxAssertions;
  return services;
}

bool anyMechanismAnswers(const PlatformServices& platform) {
  const auto all = platform.assertions->mechanisms();
  return std::ranges::any_of(all, [](const auto& status) { return status.state != MechanismState::missing; });
}

}  // namespace vimbrel
