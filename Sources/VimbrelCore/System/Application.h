// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "AgentMonitoring/Hooks/LastHookEvents.h"
#include "AgentMonitoring/UsageCoordinator.h"
#include "DeepHold/DeepSleepController.h"
#include "Platform/PlatformServices.h"
#include "Support/Clock.h"
#include "Support/TaskQueue.h"
#include "System/AppCoordinator.h"
#include "System/CommandHolds.h"
#include "System/DeepHoldService.h"
#include "System/DiagnosticsExporter.h"
#include "System/FilePreferences.h"
#include "System/GlobalShortcutController.h"
#include "System/LaunchAtLoginController.h"
#include "System/NotificationController.h"
#include "System/PresentationValues.h"
#include "System/ProtectionHistory.h"

namespace vimbrel {

/// Where an application keeps and finds the user's files. `ofUser` works them out from the environment.
struct ApplicationDirectories {
  std::string home;                ///< where agents keep their transcripts
  std::string applicationSupport;  ///< holds "Vimbrel/run/vimbrel.sock"
  std::string configuration;       ///< holds "com.vimbrel.app/settings.json"
  [[nodiscard]] static ApplicationDirectories ofUser();
};

/// What differs between the programs that are built on the application.
struct ApplicationOptions {
  /// Where hook events come from: the hook socket, or the program itself on virtual time. Required.
  std::shared_ptr<HookEventReceiving> hookReceiver;
  /// Which helper covers the closed lid: the machine's, or one in memory that touches nothing.
  enum class Helper { simulated, machine } helper = Helper::simulated;
  /// The simulated helper to ask, instead of one that never fails.
  HelperExchange helperExchange;
  /// Knows which process is the agent behind each session; may be null.
  std::shared_ptr<AgentProcesses> agentProcesses;
  /// Records usage and budgets; may be null. Started and stopped with the coordinator.
  std::shared_ptr<UsageCoordinator> usage;
  /// Remembers when agents' hooks last reported; may be null. Saved now and then, and when the application
  /// stops.
  std::shared_ptr<LastHookEvents> lastHookEvents;
  /// Started and stopped with the coordinator, after the application's own.
  std::vector<std::shared_ptr<CoordinatorService>> services;
};

/// The one wiring of the background process: builds every service of `AppCoordinator` in dependency order and
/// tears them down in reverse. Used alike by `vimbrel run`, by scripted simulations and by the tests on
/// virtual time. Queue: the main queue.
class Application {
 public:
  /// `queues` and `clock` must outlive the application. Reads the settings; starts nothing.
  Application(PlatformServices platform, QueueProvider& queues, const Clock& clock,
              const ApplicationDirectories& directories, ApplicationOptions options = {});
  /// Gives back what is held, whether or not `stop` was called.
  ~Application();
  Application(const Application&) = delete;
  Application& operator=(const Application&) = delete;

  /// Starts the coordinator and follows edits of the settings file.
  void start();
  void stop() { coordinator_->stop(); }
  /// After `stop`, waits until the helper was told, but at most so long. Not on virtual time.
  void drain(std::chrono::milliseconds limit) { deepSleepController_->drain(limit); }

  [[nodiscard]] AppCoordinator& coordinator() { return *coordinator_; }
  [[nodiscard]] SettingsStore& settings() { return coordinator_->settings(); }
  [[nodiscard]] AgentStateCoordinator& agents() { return *coordinator_->parts().agentCoordinator; }
  [[nodiscard]] DeepHoldService& deepHold() { return *deepHold_; }
  [[nodiscard]] CommandHolds& commandHolds() { return *commandHolds_; }
  [[nodiscard]] PresentationValues& presentation() { return *presentation_; }
  [[nodiscard]] ProtectionHistory& history() { return *history_; }
  [[nodiscard]] NotificationController& notifications() { return *notifications_; }
  [[nodiscard]] GlobalShortcutController& shortcut() { return *shortcut_; }
  /// Null where the platform has no login items.
  [[nodiscard]] LaunchAtLoginController* loginItem() { return loginItem_.get(); }

  /// Gathers now what diagnostics say; the result writes the document, which may block for seconds. The
  /// result may be called on any thread while `clock` and the platform live.
  [[nodiscard]] std::function<std::string()> diagnostics();
  /// The diagnostics document, at once. May block for seconds.
  [[nodiscard]] std::string exportDiagnosticsJSON() { return diagnostics()(); }
  /// Null when usage is not recorded.
  [[nodiscard]] const std::shared_ptr<UsageCoordinator>& usage() const { return usage_; }
  [[nodiscard]] PlatformServices& platform() { return platform_; }
  /// Reads the settings file again if it changed; for queues that watch no files.
  void reloadSettings() { preferences_->reload(); }

 private:
  void addDesktopServices(CoordinatorParts& parts);
  void connectDesktopServices();

  PlatformServices platform_;
  const Clock& clock_;
  const std::shared_ptr<TaskQueue> mainQueue_;
  const std::shared_ptr<FilePreferences> preferences_;
  std::shared_ptr<DeepSleepController> deepSleepController_;
  std::shared_ptr<DeepHoldService> deepHold_;
  std::shared_ptr<CommandHolds> commandHolds_;
  std::shared_ptr<UsageCoordinator> usage_;
  std::shared_ptr<PresentationValues> presentation_;
  std::shared_ptr<ProtectionHistory> history_;
  std::shared_ptr<NotificationController> notifications_;
  std::shared_ptr<GlobalShortcutController> shortcut_;
  std::shared_ptr<LaunchAtLoginController> loginItem_;
  std::shared_ptr<AppCoordinator> coordinator_;
  Token budgetsChanged_;
};

}  // namespace vimbrel
