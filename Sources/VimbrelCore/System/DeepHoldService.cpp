// SPDX-License-Identifier: Apache-2.0
#include "System/DeepHoldService.h"

#include <utility>

#include "Support/Sentence.h"

namespace vimbrel {

using namespace std::chrono_literals;

DeepHoldService::DeepHoldService(std::shared_ptr<DeepSleepControlling> controller,
                                 std::shared_ptr<TaskQueue> mainQueue, const Clock& clock,
                                 bool isSystemHelper)
    : controller_(std::move(controller)),
      mainQueue_(std::move(mainQueue)),
      clock_(clock),
      isSystemHelper_(isSystemHelper) {}

void DeepHoldService::didDecide(const PolicyEvaluationContext& context,
                                const SessionSnapshot::Entries& /*newestFirst*/,
                                const WakeDecision& /*decision*/) {
  enabled_ = context.config.deepLidProtectionEnabled || context.commandHoldCoversLid;
}

void DeepHoldService::didApply(const WakeDecision& previous, const WakeDecision& next) {
  decision_ = next;
  const auto* hold = next.asHold();
  if (hold != nullptr && hold->requiresDeepHold) {
    covers_ = true;
    ask(Request::acquire);
  } else if (hold == nullptr && previous.isHolding()) {
    covers_ = false;
    ask(Request::release);
  } else if (std::exchange(covers_, false)) {
    // The hold goes on without the lid: the lease ends by itself, which the renewals must not prevent.
    if (waiting_ == Request::acquire) waiting_ = Request::none;
    controller_->letLapse();
  }
  const bool isActive = helperStatus_.get() && helperStatus_.get()->isDeepHoldActive;
  const auto age = covers_ || isActive ? 5s : 30s;
  if (!statusAskedAt_ || clock_.monotonic() - *statusAskedAt_ >= age) ask(Request::status);
  // An examination may have been refused in the meantime.
  announceRefusal();
}

void DeepHoldService::didStop() {
  covers_ = false;
  waiting_ = Request::none;
  // Past the waiting room: the loop that would bring it on is about to end.
  controller_->release({});
}

void DeepHoldService::ask(Request request) {
  if (underWay_ == Request::none) return begin(request);
  // A status can wait for the next evaluation, an acquire or a release must not be lost behind one.
  if (request == Request::status && waiting_ != Request::none) return;
  if (request == Request::acquire && underWay_ == Request::acquire && waiting_ != Request::release) return;
  waiting_ = request;
}

void DeepHoldService::begin(Request request) {
  underWay_ = request;
  // The controller's queue is another; what comes back may find the service gone.
  const auto back = [weak = weak_from_this(), queue = mainQueue_](auto then) {
    queue->post([weak, then = std::move(then)]() mutable {
      if (const auto self = weak.lock()) {
        then(*self);
        self->finished();
      }
    });
  };
  switch (request) {
    case Request::acquire:
      controller_->acquire(leaseSeconds, [back](bool) { back([](DeepHoldService&) {}); });
      break;
    case Request::release:
      controller_->release([back] { back([](DeepHoldService& self) { self.statusAskedAt_.reset(); }); });
      break;
    case Request::status:
      statusAskedAt_ = clock_.monotonic();
      controller_->status([back](DeepSleepStatus status) {
        back([status = std::move(status)](DeepHoldService& self) { self.publish(status); });
      });
      break;
    case Request::none:
      break;
  }
}

void DeepHoldService::finished() {
  // The first lease is looked at right away, so that surfaces need not wait for the next turn.
  const bool firstCover = underWay_ == Request::acquire && covers_ &&
                          !(helperStatus_.get() && helperStatus_.get()->isDeepHoldActive);
  underWay_ = Request::none;
  announceRefusal();
  if (waiting_ != Request::none) return begin(std::exchange(waiting_, Request::none));
  if (firstCover && controller_->lastRefusal().empty()) begin(Request::status);
}

void DeepHoldService::publish(DeepSleepStatus status) {
  if (helperStatus_.get() == status) return;
  helperStatus_.set(std::move(status));
}

void DeepHoldService::announceRefusal() {
  auto refusal = controller_->lastRefusal();
  auto lease = controller_->leaseId();
  if (refusal == announcedRefusal_ && lease == announcedLease_) return;
  announcedRefusal_ = std::move(refusal);
  announcedLease_ = std::move(lease);
  reportChanged_.send();
}

ClosedLidReport DeepHoldService::report() const {
  return describeClosedLid({enabled_, decision_, helperStatus_.get(), controller_->leaseId(),
                            controller_->lastRefusal(), isSystemHelper_});
}

void DeepHoldService::examine(std::function<void(DoctorFinding)> done) {
  // Each step runs on the controller's queue and the next is chosen here, where it is known what the loop
  // wants meanwhile.
  const auto then = [weak = weak_from_this(), queue = mainQueue_](auto step) {
    queue->post([weak, step = std::move(step)]() mutable {
      if (const auto self = weak.lock()) step(*self);
    });
  };
  controller_->status([then, done = std::move(done)](DeepSleepStatus first) {
    then([then, done, first = std::move(first)](DeepHoldService& self) {
      if (first.isDeepHoldActive || self.covers_) return done(self.findingOf(first, Probe::looked));
      constexpr double probeSeconds = 2;
      self.controller_->acquire(probeSeconds, [then, done, first](bool acquired) {
        then([then, done, first, acquired](DeepHoldService& probing) {
          if (!acquired) return done(probing.findingOf(first, Probe::refused));
          probing.controller_->status([then, done](DeepSleepStatus held) {
            then([done, held = std::move(held)](DeepHoldService& ending) {
              // Unless the loop has taken the lease over in the meantime.
              if (!ending.covers_) ending.controller_->release({});
              done(ending.findingOf(held, Probe::held));
            });
          });
        });
      });
    });
  });
}

DoctorFinding DeepHoldService::findingOf(const DeepSleepStatus& status, Probe probe) const {
  using Verdict = DoctorFinding::Verdict;
  DoctorFinding finding{sentence("closed lid"), Verdict::works, "", ""};
  const std::string who = isSystemHelper_ ? sentence("the system's helper") : sentence("your own helper");
  const auto refusal = controller_->lastRefusal();
  if (probe == Probe::refused || (probe == Probe::looked && !refusal.empty() && !status.isDeepHoldActive)) {
    finding.verdict = status.isHelperInstalled ? Verdict::refused : Verdict::missing;
    finding.explanation = refusal;
    finding.remedy = remedyForRefusal(refusal, status.isHelperInstalled);
  } else if (!status.currentSystemSleepDisabled) {
    finding.verdict = Verdict::refused;
    finding.explanation = sentence("%1 took a lease and yet the lid is not covered", {who});
    finding.remedy = remedyForRefusal("does not let the helper", true);
  } else if (probe == Probe::held) {
    finding.explanation = sentence("%1 covers the lid when it is asked to", {who});
  } else {
    finding.explanation = status.activeLeaseId == controller_->leaseId()
                              ? sentence("%1 covers the lid now", {who})
                              : sentence("%1 covers the lid now, for somebody else", {who});
  }
  return finding;
}

}  // namespace vimbrel
