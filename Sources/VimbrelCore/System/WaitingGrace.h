// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>

#include "System/CoordinatorService.h"

namespace vimbrel {

/// Makes the moment at which the last agent was left waiting for too long ("waitingGraceSeconds") the moment
/// at which work stopped: the release delay follows it as it follows any other end. That such an agent falls
/// silent for good later is no second end. Queue: the main queue.
class WaitingGrace final : public CoordinatorService {
 public:
  void willDecide(PolicyEvaluationContext& context) override;

 private:
  std::optional<Instant> leftAt_;  ///< for as long as nobody has worked since
};

}  // namespace vimbrel
