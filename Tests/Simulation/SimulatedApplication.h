// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "AgentMonitoring/DirectHookReceiver.h"
#include "Platform/Simulated/SimulatedMachine.h"
#include "Support/VirtualTime.h"
#include "System/Application.h"
#include "TemporaryDirectory.h"

namespace vimbrel {

/// The whole application on virtual time over a simulated machine: real coordinator, session table, monitors,
/// policy, settings file and assertions. Everything it does is checked after every task that runs.
class SimulatedApplication {
 public:
  static constexpr double startUnixSeconds = 1'800'000'000;

  explicit SimulatedApplication(SimulatedWorld world = {},
                                std::vector<std::shared_ptr<CoordinatorService>> services = {});
  using UsageFactory = std::function<std::shared_ptr<UsageCoordinator>(VirtualTime&)>;
  SimulatedApplication(SimulatedWorld world, std::vector<std::shared_ptr<CoordinatorService>> services,
                       const UsageFactory& usage);
  ~SimulatedApplication();

  void start();
  void stop();
  /// Destroys the application without stopping it.
  void kill();

  /// Sends one event as an agent's hook would, stamped with the present time.
  void hook(AgentType agent, AgentState state, const std::string& sessionId = "session");
  /// Moves time forward, checking after every task; stops early at the first violation.
  void run(std::chrono::nanoseconds duration);
  /// Runs what is due now, without moving time.
  void settle() { run(std::chrono::nanoseconds{0}); }
  void jumpWallClock(Seconds by) { time_.jumpWallClock(by); }

  [[nodiscard]] bool isHeld() const;
  [[nodiscard]] bool isDisplayHeld() const;
  [[nodiscard]] const WakeDecision& decision() { return app().coordinator().currentDecision().get(); }
  [[nodiscard]] Application& app() { return *application_; }
  [[nodiscard]] SimulatedMachine& machine() { return machine_; }
  [[nodiscard]] VirtualTime& time() { return time_; }
  [[nodiscard]] DirectHookReceiver& receiver() { return *receiver_; }
  [[nodiscard]] std::string settingsPath() const {
    return directory_.path() + "/com.vimbrel.app/settings.json";
  }

  /// The first promise that was broken, as a sentence; absent while all hold.
  [[nodiscard]] const std::optional<std::string>& violation() const { return violation_; }
  /// A further promise, asked whenever nothing is left to run at a moment: a sentence when it is broken.
  void alsoCheck(std::function<std::optional<std::string>()> check) { checks_.push_back(std::move(check)); }

 private:
  class Witness;
  void fail(const std::string& what);
  void checkAfterTask();
  void checkWhenSettled();

  TemporaryDirectory directory_;
  VirtualTime time_;
  SimulatedMachine machine_;
  std::shared_ptr<DirectHookReceiver> receiver_;
  std::shared_ptr<Witness> witness_;
  std::unique_ptr<Application> application_;
  std::vector<std::function<std::optional<std::string>()>> checks_;
  std::optional<std::string> violation_;
};

}  // namespace vimbrel
