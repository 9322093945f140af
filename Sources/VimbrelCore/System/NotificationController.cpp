// SPDX-License-Identifier: Apache-2.0
#include "System/NotificationController.h"

#include "Support/Sentence.h"

namespace vimbrel {
namespace {

constexpr const char* pauseAction = "pause-1h";
constexpr const char* chime = "Hero";
constexpr Seconds oneHour{3600};

}  // namespace

NotificationController::NotificationController(std::shared_ptr<SettingsStore> settings,
                                               std::shared_ptr<NotificationCenter> center,
                                               std::shared_ptr<SoundPlayer> sounds,
                                               std::shared_ptr<TaskQueue> mainQueue)
    : settings_(std::move(settings)),
      center_(std::move(center)),
      sounds_(std::move(sounds)),
      mainQueue_(std::move(mainQueue)) {}

void NotificationController::setOnPauseRequested(std::function<void(Seconds)> handler) {
  if (!center_) return;
  center_->onAction = [handler = std::move(handler)](const std::string&, const std::string& action) {
    if (action == pauseAction) handler(oneHour);
  };
}

void NotificationController::requestAuthorization() {
  if (!center_ || !center_->isAvailable()) return;
  center_->requestAuthorization([weak = weak_from_this()](const std::expected<bool, std::string>& answer) {
    const auto self = weak.lock();
    if (!self) return;
    if (answer) {
      self->logger_.info("Notification permission granted: %s", *answer ? "true" : "false");
    } else {
      self->logger_.error("Notification permission error: %s", answer.error().c_str());
    }
  });
}

void NotificationController::notifyProtectionStarted(std::int64_t agentCount) {
  post({.identifier = "vimbrel.started",
        .title = sentence("Vimbrel is protecting this Mac"),
        .body = sentenceCount(agentCount, "%1 coding agent session working.",
                              "%1 coding agent sessions working."),
        .urgency = NotificationUrgency::low,
        .actions = {{.key = pauseAction, .label = sentence("Pause 1 h")}}});
}

void NotificationController::notifyBatteryCutoff(std::int64_t percent) {
  post({.identifier = "vimbrel.battery",
        .title = sentence("Battery limit reached"),
        .body = sentence("Vimbrel released sleep protection at %1%.", {std::to_string(percent)}),
        .urgency = NotificationUrgency::critical,
        .actions = {}});
}

void NotificationController::notifyThermalCutoff() {
  post({.identifier = "vimbrel.thermal",
        .title = sentence("Thermal safety cutoff"),
        .body = sentence("Vimbrel released sleep protection so macOS can cool down normally."),
        .urgency = NotificationUrgency::critical,
        .actions = {}});
}

void NotificationController::notifyProtectionFinished() {
  post({.identifier = "vimbrel.finished",
        .title = sentence("Coding agents finished"),
        .body = sentence("Normal sleep behavior has been restored."),
        .urgency = NotificationUrgency::normal,
        .actions = {}});
}

void NotificationController::notifyLowBudget(std::string_view agentRawValue, std::string title,
                                             std::string message, bool isCritical) {
  post({.identifier = "vimbrel.budget." + std::string(agentRawValue),
        .title = std::move(title),
        .body = std::move(message),
        .urgency = isCritical ? NotificationUrgency::critical : NotificationUrgency::normal,
        .actions = {}});
}

void NotificationController::post(Notification notification) {
  if (!settings_->notificationsEnabled()) return;
  mainQueue_->post([weak = weak_from_this(), notification = std::move(notification)] {
    const auto self = weak.lock();
    if (!self) return;
    if (self->center_ && self->center_->isAvailable()) {
      self->center_->post(notification, [weak](const std::expected<void, std::string>& posted) {
        const auto controller = weak.lock();
        if (controller && !posted) {
          controller->logger_.error("Failed to post notification: %s", posted.error().c_str());
        }
      });
    }
    self->playChime();
  });
}

void NotificationController::playChime() {
  if (!sounds_ || !settings_->soundEnabled()) return;
  if (!sounds_->play(chime)) sounds_->beep();
}

}  // namespace vimbrel
