// SPDX-License-Identifier: Apache-2.0
#include "System/WaitingGrace.h"

namespace vimbrel {

void WaitingGrace::willDecide(PolicyEvaluationContext& context) {
  const auto& grace = context.config.waitingGraceSeconds;
  if (!grace) return leftAt_.reset();
  bool counts = false;
  bool isLeft = false;
  for (const auto& session : context.sessions.entries()) {
    if (!session->isWorking()) continue;
    const double silent = (context.now - session->lastEventAt).count();
    const bool waitsTooLong = session->state == AgentState::waiting && silent > *grace;
    isLeft = isLeft || waitsTooLong;
    counts = counts || (!waitsTooLong && silent <= context.config.staleSessionTTLSeconds);
  }
  if (counts) leftAt_.reset();
  if (!counts && isLeft && !leftAt_) leftAt_ = context.now;
  if (leftAt_) context.lastActiveAgentStoppedAt = leftAt_;
}

}  // namespace vimbrel
