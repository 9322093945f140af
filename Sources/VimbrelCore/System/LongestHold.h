// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>

#include "System/CoordinatorService.h"

namespace vimbrel {

/// Ends a hold that has lasted for "maximumHoldSeconds" without an agent having been heard of lately, and
/// keeps it ended until one is. A hold of agents that keep reporting is not interrupted: each time the limit
/// is reached, a new period begins. Queue: the main queue.
class LongestHold final : public CoordinatorService {
 public:
  void willDecide(PolicyEvaluationContext& context) override;
  void didDecide(const PolicyEvaluationContext& context, const SessionSnapshot::Entries& newestFirst,
                 const WakeDecision& decision) override;

 private:
  std::optional<Instant> periodStartedAt_;  ///< absent while nothing is held
  std::optional<Instant> expiredAt_;
  std::optional<Instant> noReasonSince_;
  bool wasManual_ = false;
};

}  // namespace vimbrel
