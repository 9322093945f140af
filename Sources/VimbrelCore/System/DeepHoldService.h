// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>

#include "DeepHold/DeepSleepControlling.h"
#include "Platform/PlatformServices.h"
#include "Support/Clock.h"
#include "Support/Published.h"
#include "Support/TaskQueue.h"
#include "System/ClosedLidReport.h"
#include "System/CoordinatorService.h"

namespace vimbrel {

/// Closed-lid protection: carries each decision that asks for the deep hold to the helper, and knows how the
/// helper stands. The loop never waits for it: at most one request is under way and at most one, the latest,
/// waits for that. Queue: the main queue.
class DeepHoldService final : public CoordinatorService,
                              public std::enable_shared_from_this<DeepHoldService> {
 public:
  /// How long a lease lasts without a renewal: the longest that the lid stays covered when everything fails.
  static constexpr double leaseSeconds = 60;

  /// `clock` must outlive the service; `isSystemHelper` says whose helper the controller asks.
  DeepHoldService(std::shared_ptr<DeepSleepControlling> controller, std::shared_ptr<TaskQueue> mainQueue,
                  const Clock& clock, bool isSystemHelper);

  void didDecide(const PolicyEvaluationContext& context, const SessionSnapshot::Entries& newestFirst,
                 const WakeDecision& decision) override;
  void didApply(const WakeDecision& previous, const WakeDecision& next) override;
  void didStop() override;

  /// The last known status of the helper; absent until it was asked first. Refreshed in the background, every
  /// 5 seconds while the lid is covered, or is to be, and every 30 otherwise; announced when it differs.
  Published<std::optional<DeepSleepStatus>>& helperStatus() { return helperStatus_; }
  [[nodiscard]] ClosedLidReport report() const;
  /// Sent when `report` may say something else although neither the status nor the decision differs: a
  /// request was refused, or no longer is.
  ChangeSignal& reportChanged() { return reportChanged_; }

  /// Tests the helper end to end: takes a lease of two seconds, looks whether it holds and gives it back; a
  /// lease that is active is left alone and looked at only. `done` is called later on the main queue.
  void examine(std::function<void(DoctorFinding)> done);

 private:
  enum class Request { none, acquire, release, status };

  void ask(Request request);
  void begin(Request request);
  void finished();
  void publish(DeepSleepStatus status);
  void announceRefusal();
  enum class Probe { looked, refused, held };  // how far an examination came
  [[nodiscard]] DoctorFinding findingOf(const DeepSleepStatus& status, Probe probe) const;

  const std::shared_ptr<DeepSleepControlling> controller_;
  const std::shared_ptr<TaskQueue> mainQueue_;
  const Clock& clock_;
  const bool isSystemHelper_;

  Published<std::optional<DeepSleepStatus>> helperStatus_{std::nullopt};
  ChangeSignal reportChanged_;
  std::string announcedRefusal_;
  std::optional<std::string> announcedLease_;
  WakeDecision decision_ = WakeDecision::release("Initializing");
  bool enabled_ = false;
  bool covers_ = false;  // Acquires were sent and neither a release nor the wish to let the lease lapse.
  Request underWay_ = Request::none;
  Request waiting_ = Request::none;
  std::optional<std::chrono::nanoseconds> statusAskedAt_;
};

}  // namespace vimbrel
