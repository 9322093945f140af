// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <vector>

#include "AgentMonitoring/AgentStateCoordinator.h"
#include "AgentMonitoring/Hooks/HookEventReceiving.h"
#include "AgentMonitoring/Processes/ProcessMonitoring.h"
#include "Domain/PolicyEvaluationContext.h"
#include "Domain/WakeDecision.h"
#include "Power/BatteryMonitoring.h"
#include "Power/IdleWakeControlling.h"
#include "Power/LidMonitoring.h"
#include "Power/ThermalMonitoring.h"
#include "Power/WakePolicyEngine.h"
#include "Support/Clock.h"
#include "Support/Log.h"
#include "Support/Published.h"
#include "Support/TaskQueue.h"
#include "System/CoordinatorService.h"
#include "System/SettingsStore.h"

namespace vimbrel {

/// What the coordinator joins. Built by a composition root, or by a test with substitutes.
struct CoordinatorParts {
  std::shared_ptr<SettingsStore> settings;
  std::shared_ptr<AgentStateCoordinator> agentCoordinator;
  std::shared_ptr<IdleWakeControlling> idleAssertionController;
  std::shared_ptr<BatteryMonitoring> batteryMonitor;
  std::shared_ptr<ThermalMonitoring> thermalMonitor;
  std::shared_ptr<LidMonitoring> lidMonitor;
  std::shared_ptr<HookEventReceiving> hookReceiver;
  std::shared_ptr<ProcessMonitoring> processMonitor;
  std::shared_ptr<TaskQueue> mainQueue;
  /// Started, told of every evaluation and stopped with the coordinator, in this order.
  std::vector<std::shared_ptr<CoordinatorService>> services;
};

/// The running application's centre: gathers the inputs, asks the policy, publishes the decision and carries
/// it out. Queue: everything on the main queue, except `agentSessionsDidChange` and `scheduleEvaluation`,
/// which any thread may call.
class AppCoordinator final : public AgentStateCoordinatorDelegate,
                             public std::enable_shared_from_this<AppCoordinator> {
 public:
  /// Connects the parts; starts nothing. `clock` must outlive the coordinator.
  static std::shared_ptr<AppCoordinator> create(CoordinatorParts parts, const Clock& clock);
  ~AppCoordinator() override = default;
  AppCoordinator(const AppCoordinator&) = delete;
  AppCoordinator& operator=(const AppCoordinator&) = delete;

  /// Starts everything and evaluates once. A receiver that cannot start is logged, and kept in
  /// `hookReceiverError`; the rest runs without it.
  void start();
  void stop();
  [[nodiscard]] bool isRunning() const { return static_cast<bool>(evalTimer_); }

  /// One pass of the evaluation loop.
  void evaluate();
  /// Evaluates soon on the main queue; requests that are still waiting share one evaluation. Any thread.
  void scheduleEvaluation();
  void agentSessionsDidChange(const SessionSnapshot& sessions, std::optional<Instant> lastStoppedAt) override;

  /// Each assignment is announced, also when nothing is different; `stateChanged` is the quieter signal.
  Published<WakeDecision>& currentDecision() { return currentDecision_; }
  /// When the current hold began; absent while not holding.
  Published<std::optional<Instant>>& protectionStartedAt() { return protectionStartedAt_; }
  /// All sessions, newest start first.
  Published<SessionSnapshot::Entries>& activeSessionsList() { return activeSessionsList_; }
  /// Seconds since `protectionStartedAt`; 0 while not holding.
  [[nodiscard]] double elapsedProtectionSeconds() const;

  /// Sent at the end of an evaluation whose decision, sessions, power, heat, pause, lid or assertions differ
  /// from the evaluation before, or before which any setting was written. What a surface redraws on.
  ChangeSignal& stateChanged() { return stateChanged_; }

  /// What the last evaluation decided upon; absent before the first. `WakePolicyEngine::explain` tells why.
  [[nodiscard]] const std::optional<PolicyEvaluationContext>& lastContext() const { return lastContext_; }
  [[nodiscard]] const std::optional<HookReceiverError>& hookReceiverError() const {
    return hookReceiverError_;
  }
  [[nodiscard]] bool isBatteryBlocked() const { return isBatteryBlocked_; }

  [[nodiscard]] SettingsStore& settings() { return *parts_.settings; }
  [[nodiscard]] const CoordinatorParts& parts() const { return parts_; }

 private:
  AppCoordinator(CoordinatorParts parts, const Clock& clock);
  void subscribe();
  [[nodiscard]] PolicyEvaluationContext gatherContext() const;
  void updateBatteryLatch(const WakeDecision& decision, const PolicyEvaluationContext& context);
  void publishSessions(const SessionSnapshot& sessions);
  void applyTransition(const WakeDecision& previous, const WakeDecision& next);

  const CoordinatorParts parts_;
  const Clock& clock_;
  const WakePolicyEngine policyEngine_{};
  const Logger logger_{"coordinator"};

  Published<WakeDecision> currentDecision_{WakeDecision::release("Initializing")};
  Published<std::optional<Instant>> protectionStartedAt_{std::nullopt};
  Published<SessionSnapshot::Entries> activeSessionsList_{{}};
  ChangeSignal stateChanged_;

  WakeDecision previousDecision_ = WakeDecision::release("Initializing");
  bool isBatteryBlocked_ = false;
  std::optional<PolicyEvaluationContext> lastContext_;
  /// What surfaces show besides the context and the decision.
  struct Surroundings {
    bool isLidClosed = false;
    bool isHeld = false;  ///< not so while the platform refuses, whatever the decision is
    bool isDisplayHeld = false;
    bool isPaused = false;  ///< ends by the mere passing of time, and may change no decision
    bool operator==(const Surroundings&) const = default;
  };
  Surroundings surroundings_;
  std::optional<HookReceiverError> hookReceiverError_;
  std::atomic<bool> evaluationPending_ = false;
  std::atomic<bool> settingsAreNews_ = false;
  Token evalTimer_;
  Token settingsChanged_;
};

}  // namespace vimbrel
