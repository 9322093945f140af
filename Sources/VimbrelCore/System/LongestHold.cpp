// SPDX-License-Identifier: Apache-2.0
#include "System/LongestHold.h"

#include <algorithm>

namespace vimbrel {
namespace {

/// An agent that was heard of so shortly before the limit is in the middle of its work: letting go for the
/// moments until its next event would only tear one hold into two.
constexpr Seconds fresh{60};

/// The youngest event of the agents at work. A process that is merely still there is no event.
std::optional<Instant> youngestEvent(const SessionSnapshot& sessions) {
  std::optional<Instant> youngest;
  for (const auto& session : sessions.entries()) {
    if (!session->isWorking()) continue;
    const bool isScanned = session->integrationType == IntegrationType::process;
    const auto heard = isScanned ? session->startedAt : session->lastEventAt;
    youngest = std::max(youngest.value_or(heard), heard);
  }
  return youngest;
}

}  // namespace

void LongestHold::willDecide(PolicyEvaluationContext& context) {
  const auto& limit = context.config.maximumHoldSeconds;
  const auto youngest = youngestEvent(context.sessions);
  const bool isManual = context.config.manualHoldEnabled;
  const bool isNewWish = isManual && !wasManual_;
  wasManual_ = isManual;
  if (!limit) return expiredAt_.reset();
  // Without a reason to hold there is nothing to keep ended. Not at once: a process that was found by a scan
  // counts as silent for a moment whenever it has not changed for a quarter of an hour.
  if (youngest || isManual) {
    noReasonSince_.reset();
  } else if (!noReasonSince_) {
    noReasonSince_ = context.now;
  } else if (context.now - *noReasonSince_ > fresh + Seconds{context.config.releaseDebounceSeconds}) {
    expiredAt_.reset();
  }

  const auto heardSince = [&](Instant moment) { return isNewWish || (youngest && *youngest > moment); };
  if (expiredAt_ && heardSince(*expiredAt_)) expiredAt_.reset();
  if (!expiredAt_ && periodStartedAt_ && context.now - *periodStartedAt_ >= Seconds{*limit}) {
    if (heardSince(context.now - fresh)) {
      periodStartedAt_ = context.now;
    } else {
      expiredAt_ = context.now;
    }
  }
  context.holdExpiredAt = expiredAt_;
}

void LongestHold::didDecide(const PolicyEvaluationContext& context,
                            const SessionSnapshot::Entries& /*newestFirst*/, const WakeDecision& decision) {
  if (!decision.isHolding()) {
    periodStartedAt_.reset();
  } else if (!periodStartedAt_) {
    periodStartedAt_ = context.now;
  }
}

}  // namespace vimbrel
