// SPDX-License-Identifier: Apache-2.0
#include "Domain/WakeDecision.h"

#include "Support/Sentence.h"

namespace vimbrel {

std::string WakeDecision::statusDescription() const {
  if (const auto* hold = asHold()) {
    return sentenceCount(hold->activeAgentCount, "Active (%1 working agent) — %2",
                         "Active (%1 working agents) — %2", {hold->reason});
  }
  if (const auto* release = asRelease()) return sentence("Sleep enabled — %1", {release->reason});
  return sentence("Safety blocked: %1", {rawValue(asBlocked()->block)});
}

}  // namespace vimbrel
