// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>

#include "Domain/PolicyEvaluationContext.h"
#include "Domain/WakeDecision.h"

namespace vimbrel {

/// What hangs off the coordinator's loop without being an input of the policy: the deep hold, notifications,
/// usage telemetry, shortcuts. Each overrides the moments it needs. Queue: the main queue; none may block.
class CoordinatorService {
 public:
  virtual ~CoordinatorService() = default;

  /// Before the monitors start: what asks the user for leave.
  virtual void willStart() {}
  /// The monitors and the receiver run; the evaluation timer does not yet.
  virtual void didStartIntake() {}
  /// The timer runs; the first evaluation follows.
  virtual void didStartTimer() {}

  /// The inputs are gathered and the decision is not made yet. For reasons to hold that are nobody's setting.
  virtual void willDecide(PolicyEvaluationContext& /*context*/) {}
  /// A decision was made and the session list is published; the decision is not yet. For values that are
  /// derived from both.
  virtual void didDecide(const PolicyEvaluationContext& /*context*/,
                         const SessionSnapshot::Entries& /*newestFirst*/, const WakeDecision& /*decision*/) {}
  /// After the assertions were taken or given back for the step from `previous` to `next`; on every
  /// evaluation, also between equal decisions.
  virtual void didApply(const WakeDecision& /*previous*/, const WakeDecision& /*next*/) {}

  /// The timer is cancelled; the receiver and the monitors still run.
  virtual void willStopIntake() {}
  /// The receiver and the monitors are stopped; the assertions are still held.
  virtual void didStopIntake() {}
  /// The assertions are released.
  virtual void didStop() {}
};

}  // namespace vimbrel
