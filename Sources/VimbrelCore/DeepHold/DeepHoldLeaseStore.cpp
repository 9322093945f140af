// SPDX-License-Identifier: Apache-2.0
#include "DeepHold/DeepHoldLeaseStore.h"

#include <algorithm>
#include <utility>

namespace vimbrel {
namespace {

constexpr std::size_t maximumStateFileBytes = 64 * 1024;

/// A lease id is whatever a peer sent: without control characters it cannot forge lines of the log.
std::string printable(std::string text) {
  std::replace_if(
      text.begin(), text.end(), [](unsigned char byte) { return byte < 0x20 || byte == 0x7F; }, '?');
  return text;
}

std::optional<DeepHoldStateRecord> savedState(const std::optional<std::string>& path) {
  if (!path) return std::nullopt;
  const auto text = readFile(*path, maximumStateFileBytes);
  if (!text) return std::nullopt;
  auto record = decodeDeepHoldStateRecord(*text);
  if (!record) return std::nullopt;
  return std::move(*record);
}

}  // namespace

DeepHoldLeaseStore::DeepHoldLeaseStore(std::shared_ptr<SystemPowerControlling> powerController,
                                       std::optional<std::string> stateFileURL, Now clock,
                                       Durability durability)
    : powerController_(std::move(powerController)),
      clock_(std::move(clock)),
      stateFileURL_(std::move(stateFileURL)),
      durability_(durability) {
  auto saved = savedState(stateFileURL_);
  const bool sleepDisabled = powerController_->readSleepDisabled();
  if (saved) {
    state_ = std::move(*saved);
  } else {
    state_.originalSleepDisabled = sleepDisabled;
  }
}

DeepSleepStatus DeepHoldLeaseStore::status() {
  const std::lock_guard guard(lock_);
  DeepSleepStatus status;
  status.isHelperInstalled = true;
  status.isDeepHoldActive = state_.isHolding;
  status.activeLeaseId = state_.activeLeaseId;
  status.leaseExpiresAt = state_.expiresAt;
  status.originalSleepDisabledState = state_.originalSleepDisabled;
  status.currentSystemSleepDisabled = powerController_->readSleepDisabled();
  return status;
}

bool DeepHoldLeaseStore::acquire(const std::string& leaseId, double ttlSeconds) {
  const std::lock_guard guard(lock_);
  const Instant expiry = clock_() + Seconds{ttlSeconds};
  if (!state_.isHolding) {
    const bool original = powerController_->readSleepDisabled();
    state_ = DeepHoldStateRecord{true, leaseId, expiry, original};
    if (!original) powerController_->writeSleepDisabled(true);
    logger_.info("Acquired deep hold lease %s (TTL: %lds, original: %s)", printable(leaseId).c_str(),
                 static_cast<long>(ttlSeconds), original ? "true" : "false");
  } else {
    state_.activeLeaseId = leaseId;
    state_.expiresAt = expiry;
    logger_.info("Renewed existing deep hold with lease %s", printable(leaseId).c_str());
  }
  save();
  return true;
}

bool DeepHoldLeaseStore::renew(const std::string& leaseId, double ttlSeconds) {
  const std::lock_guard guard(lock_);
  if (!state_.isHolding) return false;
  state_.activeLeaseId = leaseId;
  state_.expiresAt = clock_() + Seconds{ttlSeconds};
  save();
  logger_.debug("Renewed lease %s until %s", printable(leaseId).c_str(),
                formatIso8601(*state_.expiresAt).c_str());
  return true;
}

bool DeepHoldLeaseStore::release(const std::optional<std::string>& leaseId) {
  const std::lock_guard guard(lock_);
  if (!state_.isHolding) return true;
  if (leaseId && state_.activeLeaseId && *leaseId != *state_.activeLeaseId) {
    logger_.error("Release request for lease %s ignored, active is %s", printable(*leaseId).c_str(),
                  printable(*state_.activeLeaseId).c_str());
    return false;
  }
  releaseHeld();
  save();
  return true;
}

bool DeepHoldLeaseStore::checkWatchdog() {
  const std::lock_guard guard(lock_);
  if (!state_.isHolding || !state_.expiresAt) return false;
  const Instant now = clock_();
  if (now < *state_.expiresAt) return false;
  logger_.error("Lease expired at %s (current time: %s). Watchdog releasing deep hold!",
                formatIso8601(*state_.expiresAt).c_str(), formatIso8601(now).c_str());
  releaseHeld();
  save();
  return true;
}

void DeepHoldLeaseStore::releaseHeld() {
  if (state_.originalSleepDisabled) {
    logger_.info("Prior state was already sleep disabled, leaving untouched");
  } else {
    powerController_->writeSleepDisabled(false);
    logger_.info("Restored system sleep state to original: sleep enabled");
  }
  state_.isHolding = false;
  state_.activeLeaseId.reset();
  state_.expiresAt.reset();
}

void DeepHoldLeaseStore::save() const {
  if (!stateFileURL_) return;
  // The lease goes on in memory; the setting must not depend on a full or read-only disk.
  (void)replaceFile(*stateFileURL_, encode(state_), 0600, durability_);
}

}  // namespace vimbrel
