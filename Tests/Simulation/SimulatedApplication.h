// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "AgentMonitoring/Hooks/DirectHookReceiver.h"
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

  /// Makes the recorder of usage for each launch.
  using UsageFactory = std::function<std::shared_ptr<UsageCoordinator>(VirtualTime& time)>;
  /// What an application is launched with besides the machine.
  struct Surroundings {
    HelperExchange helper;  ///< empty: a helper that never fails
    UsageFactory usage;     ///< empty: usage is not recorded
    std::vector<std::shared_ptr<CoordinatorService>> services;
  };

  explicit SimulatedApplication(SimulatedWorld world = {},
                                std::vector<std::shared_ptr<CoordinatorService>> services = {});
  SimulatedApplication(SimulatedWorld world, std::vector<std::shared_ptr<CoordinatorService>> services,
                       UsageFactory usage);
  SimulatedApplication(SimulatedWorld world, Surroundings surroundings);
  ~SimulatedApplication();

  void start();
  void stop();
  /// Destroys the application without stopping it.
  void kill();
  /// Ends the application as SIGKILL does: its files are as they were at this moment, whatever its
  /// destructors write.
  void crash();
  /// Launches and starts it again after `kill` or `crash`, on the same machine, time and files.
  void relaunch();
  [[nodiscard]] bool isAlive() const { return application_ != nullptr; }
  /// The directory that holds everything the application writes.
  [[nodiscard]] const std::string& directory() const { return directory_.path(); }

  /// Sends one event as an agent's hook would, stamped with the present time or the given one.
  void hook(AgentType agent, AgentState state, const std::string& sessionId = "session",
            std::optional<Instant> timestamp = std::nullopt);
  /// Moves time forward, checking after every task; stops early at the first violation.
  void run(std::chrono::nanoseconds duration);
  /// Runs at most so many tasks of the next second, and stops in the middle of whatever that is.
  void runTasks(std::size_t count);
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
  /// Leaves out the promises about when work is a reason to hold, for tests of the settings that bound it.
  void leaveOutWork() { checksWork_ = false; }
  /// A further promise, asked whenever nothing is left to run at a moment: a sentence when it is broken.
  void alsoCheck(std::function<std::optional<std::string>()> check) { checks_.push_back(std::move(check)); }
  /// As `alsoCheck`, but asked after every single task, also while no application lives.
  void checkEveryTask(std::function<std::optional<std::string>()> check) {
    taskChecks_.push_back(std::move(check));
  }
  /// How many tasks have been run, and checked after.
  [[nodiscard]] std::uint64_t taskCount() const { return taskCount_; }

 private:
  class Witness;
  void launch();
  void fail(const std::string& what);
  void checkAfterTask();
  void checkWhenSettled();

  TemporaryDirectory directory_;
  VirtualTime time_;
  SimulatedMachine machine_;
  std::shared_ptr<DirectHookReceiver> receiver_;
  std::shared_ptr<Witness> witness_;
  std::unique_ptr<Application> application_;
  Surroundings surroundings_;
  std::vector<std::function<std::optional<std::string>()>> checks_;
  std::vector<std::function<std::optional<std::string>()>> taskChecks_;
  std::uint64_t taskCount_ = 0;
  std::optional<std::string> violation_;
  bool checksWork_ = true;
};

}  // namespace vimbrel
