// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "DeepHold/DeepHoldLeaseStore.h"
#include "DeepHold/DeepHoldProtocol.h"
#include "Platform/SystemPowerControlling.h"
#include "Support/Clock.h"
#include "Support/Log.h"
#include "Support/TaskQueue.h"

namespace vimbrel {

/// The longest lifetime that a lease may ask for, in seconds.
inline constexpr double maximumLeaseSeconds = 3600;
/// The longest lease id, in bytes. Every byte may take six in a response, which must stay in its bound.
inline constexpr std::size_t maximumLeaseIdBytes = 256;

struct HelperServiceParts {
  std::shared_ptr<SystemPowerControlling> power;
  std::function<std::string()> whyPowerFailed;  ///< for people; may be empty
  std::string stateFile;
  std::shared_ptr<TaskQueue> queue;
  /// The administrator asked for the helper's removal; called after the answer was made.
  std::function<void()> onUninstall;
};

/// The helper without its socket: checks requests, maps them onto one lease store, and watches the lease. It
/// never lets a hold outlive its lease: it looks every five seconds while there is one and at the very
/// expiry, by the wall clock and, should that be set back, by a clock that cannot be. How far the two clocks
/// were apart when the lease was given stands in "<state file>.clock", so that a helper that was killed in
/// between does not believe the wall clock alone. Queue: the given one.
class HelperService {
 public:
  /// `clock` must outlive the service.
  HelperService(HelperServiceParts parts, const Clock& clock);

  /// Takes up what the state file tells: a lease that still runs is held again, anything else is let go.
  void start();
  /// Answers a request of a peer that may ask.
  [[nodiscard]] HelperResponse answer(const HelperRequest& request, uid_t peer);
  /// Restores the setting.
  void stop();

 private:
  void examineStateFile() const;
  void takeUpLease();
  void noteClock();
  [[nodiscard]] std::chrono::nanoseconds clockSetBackBy() const;
  [[nodiscard]] HelperResponse acquire(const std::string& leaseId, double ttlSeconds);
  [[nodiscard]] HelperResponse uninstall();
  bool ensureSettingHolds();
  void watchLease();
  void checkLease();

  const HelperServiceParts parts_;
  const Clock& clock_;
  DeepHoldLeaseStore store_;
  std::chrono::nanoseconds deadline_{};  // of the lease, on the monotonic clock
  std::optional<double> notedClock_;
  Token expiryTimer_;
  Token watchdogTimer_;
  const Logger logger_{"helper", "com.vimbrel.helper"};
};

}  // namespace vimbrel
