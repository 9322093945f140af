// SPDX-License-Identifier: Apache-2.0
#include "System/Application.h"

#include <algorithm>
#include <cassert>
#include <iterator>
#include <utility>

#include "AgentMonitoring/Processes/ProcessMonitor.h"
#include "DeepHold/HelperSocketPath.h"
#include "DeepHold/SimulatedHelper.h"
#include "Power/BatteryMonitor.h"
#include "Power/IdleWakeAssertionController.h"
#include "Power/LidMonitor.h"
#include "Power/ThermalMonitor.h"
#include "Support/Directories.h"
#include "System/BudgetNotices.h"
#include "System/LoginItemSync.h"
#include "System/LongestHold.h"
#include "System/ProtectionNotices.h"
#include "System/SettingDescriptions.h"
#include "System/ShortcutToggle.h"
#include "System/WaitingGrace.h"

namespace vimbrel {
namespace {

/// Starts and stops the recording of usage with the loop.
class UsageService final : public CoordinatorService {
 public:
  explicit UsageService(std::shared_ptr<UsageCoordinator> usage) : usage_(std::move(usage)) {}
  void didStartTimer() override { usage_->start(); }
  void willStopIntake() override { usage_->stop(); }

 private:
  const std::shared_ptr<UsageCoordinator> usage_;
};

/// Keeps what was heard of the agents over restarts.
class LastHookEventsService final : public CoordinatorService {
 public:
  LastHookEventsService(std::shared_ptr<LastHookEvents> events, std::shared_ptr<TaskQueue> mainQueue)
      : events_(std::move(events)), mainQueue_(std::move(mainQueue)) {}
  void didStartTimer() override {
    // A crash costs the news of ten minutes.
    constexpr std::chrono::minutes period{10};
    timer_ =
        mainQueue_->every(period, period, TimerPrecision::shared, [events = events_] { events->save(); });
  }
  void didStop() override {
    timer_.reset();
    events_->save();
  }

 private:
  const std::shared_ptr<LastHookEvents> events_;
  const std::shared_ptr<TaskQueue> mainQueue_;
  Token timer_;
};

}  // namespace

ApplicationDirectories ApplicationDirectories::ofUser() {
  return {.home = directories::home(),
          .applicationSupport = directories::applicationSupport(),
          .configuration = directories::configuration()};
}

Application::Application(PlatformServices platform, QueueProvider& queues, const Clock& clock,
                         const ApplicationDirectories& directories, ApplicationOptions options)
    : platform_(std::move(platform)),
      clock_(clock),
      mainQueue_(queues.mainQueue()),
      preferences_(std::make_shared<FilePreferences>(
          directories.configuration + "/com.vimbrel.app/settings.json", settingDescriptions())) {
  CoordinatorParts parts;
  parts.mainQueue = mainQueue_;
  parts.settings = std::make_shared<SettingsStore>(preferences_, clock);
  parts.agentCoordinator = std::make_shared<AgentStateCoordinator>(clock);
  parts.agentCoordinator->setAgentProcesses(std::move(options.agentProcesses));
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
  if (options.helper == ApplicationOptions::Helper::machine) {
    deepSleepController_ = std::make_shared<DeepSleepController>(queues, std::nullopt);
  } else {
    auto exchange = options.helperExchange ? std::move(options.helperExchange) : simulatedHelper(clock);
    deepSleepController_ = std::make_shared<DeepSleepController>(queues, std::string(systemHelperSocketPath),
                                                                 std::move(exchange));
  }
  deepHold_ = std::make_shared<DeepHoldService>(deepSleepController_, mainQueue_, clock,
                                                deepSleepController_->socketPath() == systemHelperSocketPath);
  commandHolds_ = std::make_shared<CommandHolds>();
  usage_ = std::move(options.usage);
  presentation_ = std::make_shared<PresentationValues>(
      usage_ ? [usage = usage_.get()]() -> const auto& { return usage->latestBudgetReports().get(); }
             : std::function<const PresentationValues::BudgetReports&()>{});
  history_ = std::make_shared<ProtectionHistory>(
      ProtectionHistory::Options{
          .path = directories.applicationSupport + "/Vimbrel/history.jsonl",
          .isHeld = [assertions = parts.idleAssertionController] { return assertions->isActive(); },
          .isLidCovered = [deepHold = deepHold_] { return deepHold->report().cover == LidCover::covered; },
          .isOnTrial = [last = options.lastHookEvents](
                           const std::string& session) { return last && last->isOnTrial(session); }},
      clock);
  parts.services = {
      deepHold_,     commandHolds_, std::make_shared<WaitingGrace>(), std::make_shared<LongestHold>(),
      presentation_, history_};
  addDesktopServices(parts);
  if (usage_) {
    parts.services.push_back(std::make_shared<UsageService>(usage_));
    usage_->setOnTurnInterrupted([weak = std::weak_ptr(parts.agentCoordinator)](const auto& interruption) {
      if (const auto agents = weak.lock()) agents->turnInterrupted(interruption);
    });
  }
  if (options.lastHookEvents) {
    parts.services.push_back(std::make_shared<LastHookEventsService>(options.lastHookEvents, mainQueue_));
  }
  parts.agentCoordinator->setOnHookEvent(
      [weak = std::weak_ptr(usage_), last = options.lastHookEvents](const HookEvent& event) {
        if (last) last->record(event);
        if (const auto usage = weak.lock()) usage->handleHookEvent(event);
      });
  std::ranges::move(options.services, std::back_inserter(parts.services));
  coordinator_ = AppCoordinator::create(std::move(parts), clock);
  connectDesktopServices();
  if (usage_) {
    budgetsChanged_ = usage_->latestBudgetReports().subscribe([weak = std::weak_ptr(coordinator_)] {
      if (const auto coordinator = weak.lock()) coordinator->scheduleEvaluation();
    });
  }
}

Application::~Application() = default;

void Application::addDesktopServices(CoordinatorParts& parts) {
  notifications_ = std::make_shared<NotificationController>(parts.settings, platform_.notificationCenter,
                                                            platform_.soundPlayer, mainQueue_);
  parts.services.push_back(std::make_shared<ProtectionNotices>(notifications_, parts.batteryMonitor));
  if (usage_) {
    parts.services.push_back(std::make_shared<BudgetNotices>(
        notifications_, parts.settings,
        [usage = usage_.get()]() -> const auto& { return usage->latestBudgetReports().get(); }));
  }
  shortcut_ = std::make_shared<GlobalShortcutController>(platform_.keyShortcut);
  parts.services.push_back(std::make_shared<ShortcutToggle>(shortcut_));
  if (platform_.loginItem) {
    loginItem_ = std::make_shared<LaunchAtLoginController>(platform_.loginItem);
    parts.services.push_back(std::make_shared<LoginItemSync>(parts.settings, loginItem_, mainQueue_));
  }
}

void Application::connectDesktopServices() {
  notifications_->setOnPauseRequested([weak = std::weak_ptr(coordinator_)](Seconds duration) {
    const auto coordinator = weak.lock();
    if (!coordinator) return;
    if (const auto written = coordinator->settings().pause(duration); !written) {
      Logger("notifications").error("The pause from the notice failed: %s", written.error().text.c_str());
    }
  });
  shortcut_->setOnToggleRequested([weak = std::weak_ptr(coordinator_), queue = mainQueue_] {
    queue->post([weak] {
      const auto coordinator = weak.lock();
      if (!coordinator) return;
      auto& settings = coordinator->settings();
      if (const auto written = settings.setMasterEnabled(!settings.masterEnabled()); !written) {
        Logger("shortcut").error("The shortcut changes nothing: %s", written.error().text.c_str());
      }
      coordinator->evaluate();
    });
  });
}

std::function<std::string()> Application::diagnostics() {
  return [exporter = DiagnosticsExporter(clock_, platform_.describeSystem, platform_.listAssertions),
          decision = coordinator_->currentDecision().get(),
          power = coordinator_->parts().batteryMonitor->currentSnapshot(),
          thermal = coordinator_->parts().thermalMonitor->currentThermalState(),
          sessions = coordinator_->activeSessionsList().get()] {
    return DiagnosticsExporter::exportJSON(
        exporter.generateReport(decision, power, thermal, sessions, std::nullopt));
  };
}

void Application::start() {
  preferences_->watch(*mainQueue_);
  coordinator_->start();
}

}  // namespace vimbrel
