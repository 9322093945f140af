// SPDX-License-Identifier: Apache-2.0
#include "System/AppCoordinator.h"

#include <algorithm>
#include <utility>

namespace vimbrel {
namespace {

using namespace std::chrono_literals;

bool sameInputs(const PolicyEvaluationContext& left, const PolicyEvaluationContext& right) {
  return left.config == right.config && left.powerSource == right.powerSource &&
         left.thermalState == right.thermalState && left.pauseUntil == right.pauseUntil &&
         left.commandHold == right.commandHold && left.commandHoldCoversLid == right.commandHoldCoversLid &&
         left.sessions.entries() == right.sessions.entries();
}

}  // namespace

std::shared_ptr<AppCoordinator> AppCoordinator::create(CoordinatorParts parts, const Clock& clock) {
  const std::shared_ptr<AppCoordinator> coordinator(new AppCoordinator(std::move(parts), clock));
  coordinator->subscribe();
  return coordinator;
}

AppCoordinator::AppCoordinator(CoordinatorParts parts, const Clock& clock)
    : parts_(std::move(parts)), clock_(clock) {}

void AppCoordinator::subscribe() {
  parts_.hookReceiver->setDelegate(parts_.agentCoordinator);
  parts_.agentCoordinator->setDelegate(weak_from_this());

  const auto evaluateSoon = [weak = weak_from_this()](const auto&...) {
    if (const auto self = weak.lock()) self->scheduleEvaluation();
  };
  parts_.batteryMonitor->setOnPowerSourceChanged(evaluateSoon);
  parts_.thermalMonitor->setOnThermalStateChanged(evaluateSoon);
  parts_.lidMonitor->setOnLidStateChanged(evaluateSoon);
  settingsChanged_ = parts_.settings->objectWillChange().subscribe([weak = weak_from_this()] {
    const auto self = weak.lock();
    if (!self) return;
    // Surfaces show settings that no decision depends on, too.
    self->settingsAreNews_ = true;
    self->scheduleEvaluation();
  });

  parts_.processMonitor->setOnProcessesUpdated(
      [weak = weak_from_this(), queue = parts_.mainQueue](std::vector<ProcessMatch> matches) {
        queue->post([weak, matches = std::move(matches)] {
          const auto self = weak.lock();
          if (!self) return;
          self->parts_.agentCoordinator->syncProcessSessions(matches);
          self->evaluate();
        });
      });
}

void AppCoordinator::start() {
  if (isRunning()) return;
  logger_.info("Starting Vimbrel AppCoordinator...");
  for (const auto& service : parts_.services) service->willStart();
  parts_.batteryMonitor->start();
  parts_.thermalMonitor->start();
  parts_.lidMonitor->start();
  parts_.processMonitor->start(1.0);
  hookReceiverError_.reset();
  if (const auto started = parts_.hookReceiver->start(); !started) {
    logger_.error("Failed to start hook receiver: %s", started.error().text.c_str());
    hookReceiverError_ = started.error();
  }
  for (const auto& service : parts_.services) service->didStartIntake();
  evalTimer_ = parts_.mainQueue->every(1s, 1s, TimerPrecision::shared, [weak = weak_from_this()] {
    const auto self = weak.lock();
    if (!self) return;
    self->parts_.agentCoordinator->sweepStaleSessions(self->clock_.now());
    self->evaluate();
  });
  for (const auto& service : parts_.services) service->didStartTimer();
  evaluate();
}

void AppCoordinator::stop() {
  evalTimer_.reset();
  for (const auto& service : parts_.services) service->willStopIntake();
  parts_.hookReceiver->stop();
  parts_.batteryMonitor->stop();
  parts_.thermalMonitor->stop();
  parts_.processMonitor->stop();
  for (const auto& service : parts_.services) service->didStopIntake();
  parts_.idleAssertionController->release();
  for (const auto& service : parts_.services) service->didStop();
}

void AppCoordinator::agentSessionsDidChange(const SessionSnapshot& /*sessions*/,
                                            std::optional<Instant> /*lastStoppedAt*/) {
  scheduleEvaluation();
}

void AppCoordinator::scheduleEvaluation() {
  if (evaluationPending_.exchange(true)) return;
  parts_.mainQueue->post([weak = weak_from_this()] {
    const auto self = weak.lock();
    // Another evaluation may have run since, and have served this request.
    if (self && self->evaluationPending_) self->evaluate();
  });
}

PolicyEvaluationContext AppCoordinator::gatherContext() const {
  PolicyEvaluationContext context;
  context.config = parts_.settings->policyConfig();
  context.sessions = parts_.agentCoordinator->sessions();
  context.powerSource = parts_.batteryMonitor->currentSnapshot();
  context.thermalState = parts_.thermalMonitor->currentThermalState();
  context.now = clock_.now();
  context.pauseUntil = parts_.settings->pauseUntil();
  context.lastActiveAgentStoppedAt = parts_.agentCoordinator->lastActiveAgentStoppedAt();
  context.isCurrentlyBatteryBlocked = isBatteryBlocked_;
  for (const auto& service : parts_.services) service->willDecide(context);
  return context;
}

void AppCoordinator::evaluate() {
  // Cleared before the inputs are read: what changes from here on asks again.
  evaluationPending_ = false;
  const bool settingsAreNews = settingsAreNews_.exchange(false);
  auto context = gatherContext();
  const auto decision = policyEngine_.evaluate(context);
  updateBatteryLatch(decision, context);
  publishSessions(context.sessions);
  for (const auto& service : parts_.services) {
    service->didDecide(context, activeSessionsList_.get(), decision);
  }

  const auto previous = std::exchange(previousDecision_, decision);
  const bool isNews =
      settingsAreNews || !lastContext_ || decision != previous || !sameInputs(*lastContext_, context);
  const bool isPaused = context.pauseUntil && *context.pauseUntil > context.now;
  lastContext_ = std::move(context);
  currentDecision_.set(decision);
  applyTransition(previous, decision);
  const auto& assertions = *parts_.idleAssertionController;
  const Surroundings around{parts_.lidMonitor->isLidClosed(), assertions.isActive(),
                            assertions.isDisplayActive(), isPaused};
  const bool isElsewise = std::exchange(surroundings_, around) != around;
  if (isNews || isElsewise) stateChanged_.send();
}

void AppCoordinator::updateBatteryLatch(const WakeDecision& decision,
                                        const PolicyEvaluationContext& context) {
  const auto& config = context.config;
  if (decision == WakeDecision::blocked(SafetyBlock::batteryBelowFloor)) {
    isBatteryBlocked_ = true;
  } else if (context.powerSource.isOnAC || context.powerSource.batteryPercent.value_or(0) >=
                                               config.batteryFloorPercent + config.batteryHysteresisPercent) {
    isBatteryBlocked_ = false;
  }
}

void AppCoordinator::publishSessions(const SessionSnapshot& sessions) {
  // An unchanged table needs no sorting; the comparison is of pointers.
  if (lastContext_ && lastContext_->sessions.entries() == sessions.entries()) {
    activeSessionsList_.set(activeSessionsList_.get());
    return;
  }
  auto newestFirst = sessions.entries();
  std::ranges::stable_sort(
      newestFirst, [](const auto& left, const auto& right) { return left->startedAt > right->startedAt; });
  activeSessionsList_.set(std::move(newestFirst));
}

void AppCoordinator::applyTransition(const WakeDecision& previous, const WakeDecision& next) {
  if (const auto* hold = next.asHold()) {
    if (!previous.isHolding()) protectionStartedAt_.set(clock_.now());
    parts_.idleAssertionController->acquire(hold->reason, parts_.settings->preventDisplaySleep());
  } else if (previous.isHolding()) {
    protectionStartedAt_.set(std::nullopt);
    parts_.idleAssertionController->release();
  }
  for (const auto& service : parts_.services) service->didApply(previous, next);
}

double AppCoordinator::elapsedProtectionSeconds() const {
  const auto& startedAt = protectionStartedAt_.get();
  return startedAt ? (clock_.now() - *startedAt).count() : 0;
}

}  // namespace vimbrel
