// SPDX-License-Identifier: Apache-2.0
#include "Domain/WakeDecision.h"

namespace vimbrel {

std::string WakeDecision::statusDescription() const {
  if (const auto* hold = asHold()) {
    return "Active (" + std::to_string(hold->activeAgentCount) + " working agent" +
           (hold->activeAgentCount == 1 ? "" : "s") + ") — " + hold->reason;
  }
  if (const auto* release = asRelease()) return "Sleep enabled — " + release->reason;
  return "Safety blocked: " + std::string(rawValue(asBlocked()->block));
}

}  // namespace vimbrel
