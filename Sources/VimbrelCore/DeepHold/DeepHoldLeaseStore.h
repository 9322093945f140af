// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "DeepHold/DeepHoldProtocol.h"
#include "DeepHold/DeepHoldStateRecord.h"
#include "Platform/SystemPowerControlling.h"
#include "Support/AtomicFile.h"
#include "Support/Log.h"

namespace vimbrel {

/// The privileged side of the deep hold: owns the sleep setting while a lease is active. The first acquire
/// remembers the setting and disables sleep; a later one takes the lease over; release, or the watchdog once
/// the lease has expired, restores what was remembered. The state file is rewritten after every change, so
/// that a restarted store still knows what it must restore.
///
/// Any thread: one lock is held for the whole of each operation, calls of the controller included. Failures
/// of the controller and of the state file do not change the course of a lease.
class DeepHoldLeaseStore {
 public:
  using Now = std::function<Instant()>;

  /// Takes up the state that the file holds, an active lease included, and changes nothing yet. Without a
  /// file, or with one that cannot be read, it starts without a lease. `durability` says whether a saved
  /// state must survive a crash of the machine: it must, wherever the sleep setting does.
  DeepHoldLeaseStore(std::shared_ptr<SystemPowerControlling> powerController,
                     std::optional<std::string> stateFileURL, Now clock,
                     Durability durability = Durability::machine);

  [[nodiscard]] DeepSleepStatus status();
  /// Always succeeds. `ttlSeconds` must be finite and fit a 64-bit integer.
  bool acquire(const std::string& leaseId, double ttlSeconds);
  /// False when there is nothing to renew. The renewing lease becomes the active one.
  bool renew(const std::string& leaseId, double ttlSeconds);
  /// False when another lease is active. Without an id, whatever is active is released.
  bool release(const std::optional<std::string>& leaseId);
  /// Releases the lease if it has expired, and says whether it did.
  bool checkWatchdog();

 private:
  void releaseHeld();
  void save() const;

  std::mutex lock_;
  DeepHoldStateRecord state_;
  const std::shared_ptr<SystemPowerControlling> powerController_;
  const Now clock_;
  const std::optional<std::string> stateFileURL_;
  const Durability durability_;
  const Logger logger_{"lease", "com.vimbrel.helper"};
};

}  // namespace vimbrel
