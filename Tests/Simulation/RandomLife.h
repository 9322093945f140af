// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <random>
#include <string>

#include "Simulation/SimulatedApplication.h"

namespace vimbrel {

/// What happens to a laptop and its agents in some hours, drawn from a seed: hooks, scans, a battery that
/// drains and charges, heat, pauses, settings changed by command and by editor, a lid, clock jumps, refused
/// assertions. It keeps its own books of who works, apart from the application's, and checks them too.
class RandomLife {
 public:
  RandomLife(SimulatedApplication& application, std::uint32_t seed);

  /// One thing happens, drawn from this seed alone and from what the world is like.
  void happen(std::uint32_t seed);
  /// A second has passed: batteries drain and charge.
  void passSecond(std::uint32_t seed);
  /// The application was started anew and knows no session; the machine is as it was.
  void applicationRestarted();
  /// The wall clock was moved by somebody else.
  void clockJumped() { lastJump_ = application_.time().monotonic(); }
  /// When the wall clock jumped last, on the monotonic one.
  [[nodiscard]] std::chrono::nanoseconds lastJump() const { return lastJump_; }
  /// Told of everything that happens.
  std::function<void(const std::string&)> onNote;
  /// Lives on; false when a promise was broken.
  bool live(std::chrono::seconds duration);
  /// The last things that happened, for a failing run's report.
  [[nodiscard]] std::string recentEvents() const;
  /// Seconds of the life spent holding, releasing and blocked, to see that it exercised them all.
  [[nodiscard]] const std::map<std::string, int>& secondsSpent() const { return secondsSpent_; }

 private:
  struct HookSession {
    AgentState state = AgentState::idle;
    Instant lastEventAt{};
  };

  void somethingHappens();
  void agentReports();
  void processComesOrGoes();
  void powerChanges();
  void heatChanges();
  void settingChanges();
  void settingsAreEdited();
  void clockJumps();
  [[nodiscard]] std::optional<std::string> checkOwnBooks();
  void drainBattery();

  [[nodiscard]] int upTo(int bound) { return static_cast<int>(random_() % static_cast<unsigned>(bound)); }
  void note(std::string what);

  SimulatedApplication& application_;
  std::mt19937 random_;
  std::map<std::string, HookSession> hookSessions_;
  std::map<std::int32_t, std::chrono::nanoseconds> workingProcesses_;  ///< since when each runs
  std::chrono::nanoseconds lastJump_{0};
  std::chrono::nanoseconds nobodyWorkedSince_{0};
  std::deque<std::string> recent_;
  std::map<std::string, int> secondsSpent_;
  std::int32_t nextPid_ = 1000;
};

}  // namespace vimbrel
