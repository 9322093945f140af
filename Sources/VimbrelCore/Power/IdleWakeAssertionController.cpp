// SPDX-License-Identifier: Apache-2.0
#include "Power/IdleWakeAssertionController.h"

#include <utility>

namespace vimbrel {

IdleWakeAssertionController::IdleWakeAssertionController(std::shared_ptr<SleepAssertions> assertions)
    : assertions_(std::move(assertions)) {}

IdleWakeAssertionController::~IdleWakeAssertionController() {
  const std::lock_guard guard(lock_);
  releaseHeld();
}

bool IdleWakeAssertionController::isActive() const {
  const std::lock_guard guard(lock_);
  return systemAssertionID_ != 0;
}

bool IdleWakeAssertionController::isDisplayActive() const {
  const std::lock_guard guard(lock_);
  return displayAssertionID_ != 0;
}

bool IdleWakeAssertionController::acquire(std::string_view reason, bool preventDisplaySleep) {
  const std::lock_guard guard(lock_);
  const bool displayMatches = (displayAssertionID_ != 0) == preventDisplaySleep;
  if (systemAssertionID_ != 0 && displayMatches) return true;
  releaseHeld();

  const std::string name = "Vimbrel: " + std::string(reason);
  systemAssertionID_ = create(AssertionType::preventUserIdleSystemSleep, name);
  if (systemAssertionID_ == 0) return false;
  logger_.info("Acquired PreventUserIdleSystemSleep assertion ID: %u reason: %.*s", systemAssertionID_,
               static_cast<int>(reason.size()), reason.data());

  if (preventDisplaySleep) {
    displayAssertionID_ = create(AssertionType::preventUserIdleDisplaySleep, name);
    if (displayAssertionID_ != 0) {
      logger_.info("Acquired PreventUserIdleDisplaySleep assertion ID: %u", displayAssertionID_);
    }
  }
  return true;
}

void IdleWakeAssertionController::release() {
  const std::lock_guard guard(lock_);
  releaseHeld();
}

AssertionHandle IdleWakeAssertionController::create(AssertionType type, std::string_view name) {
  const auto handle = assertions_->create(type, name);
  if (handle) return *handle;
  const auto status = static_cast<std::int32_t>(handle.error().fault);
  if (type == AssertionType::preventUserIdleSystemSleep) {
    logger_.error("Failed to acquire PreventUserIdleSystemSleep assertion: %d", status);
  } else {
    logger_.error("Failed to acquire PreventUserIdleDisplaySleep assertion: %d", status);
  }
  // The adapter's own words; coming with every retry, they would drown the log at a higher level.
  logger_.debug("The platform says: %s", handle.error().detail.c_str());
  return 0;
}

void IdleWakeAssertionController::releaseHeld() {
  if (const auto held = std::exchange(systemAssertionID_, 0)) {
    assertions_->release(held);
    logger_.info("Released PreventUserIdleSystemSleep assertion ID: %u", held);
  }
  if (const auto held = std::exchange(displayAssertionID_, 0)) {
    assertions_->release(held);
    logger_.info("Released PreventUserIdleDisplaySleep assertion ID: %u", held);
  }
}

}  // namespace vimbrel
