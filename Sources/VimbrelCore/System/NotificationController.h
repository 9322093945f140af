// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "Platform/NotificationCenter.h"
#include "Platform/SoundPlayer.h"
#include "Support/Log.h"
#include "Support/TaskQueue.h"
#include "System/CoordinatorService.h"
#include "System/SettingsStore.h"

namespace vimbrel {

/// Tells the user when protection starts and why it ended, with a chime. The setting "notificationsEnabled"
/// gates all of it, "soundEnabled" the chime. Any thread; the work is done on the main queue.
class NotificationController : public std::enable_shared_from_this<NotificationController> {
 public:
  /// `center` and `sounds` may be null: then there is nothing to show, or to play, with.
  NotificationController(std::shared_ptr<SettingsStore> settings, std::shared_ptr<NotificationCenter> center,
                         std::shared_ptr<SoundPlayer> sounds, std::shared_ptr<TaskQueue> mainQueue);

  void requestAuthorization();
  void notifyProtectionStarted(std::int64_t agentCount);
  void notifyBatteryCutoff(std::int64_t percent);
  void notifyThermalCutoff();
  void notifyProtectionFinished();
  /// A budget of an agent that runs low; each agent's notices replace one another.
  void notifyLowBudget(std::string_view agentRawValue, std::string title, std::string message,
                       bool isCritical);

  /// Called on the main queue when the user chooses "Pause 1 h" on the notice that protection started.
  void setOnPauseRequested(std::function<void(Seconds)> handler);

 private:
  void post(Notification notification);
  void playChime();

  const std::shared_ptr<SettingsStore> settings_;
  const std::shared_ptr<NotificationCenter> center_;
  const std::shared_ptr<SoundPlayer> sounds_;
  const std::shared_ptr<TaskQueue> mainQueue_;
  const Logger logger_{"notifications"};
};

}  // namespace vimbrel
