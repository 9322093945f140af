// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "CoordinatorWorld.h"

namespace vimbrel {
namespace {

using namespace std::chrono_literals;

/// A snapshot with a copy of all that it held when it was taken.
struct Remembered {
  explicit Remembered(const SessionSnapshot& taken) : snapshot(taken) {
    for (const auto& entry : taken.entries()) copies.push_back(*entry);
  }
  [[nodiscard]] bool isUnchanged() const {
    return std::equal(copies.begin(), copies.end(), snapshot.entries().begin(), snapshot.entries().end(),
                      [](const AgentSession& copy, const auto& entry) { return copy == *entry; });
  }
  SessionSnapshot snapshot;
  std::vector<AgentSession> copies;
};

std::size_t countWorking(const SessionSnapshot& snapshot) {
  return static_cast<std::size_t>(std::count_if(snapshot.entries().begin(), snapshot.entries().end(),
                                                [](const auto& entry) { return entry->isWorking(); }));
}

class RandomRun {
 public:
  RandomRun(unsigned seed, SessionLimits limits) : world_(limits), limits_(limits), random_(seed) {}

  void step() {
    const auto before = world_.coordinator.sessions();
    const bool workedBefore = countWorking(before) > 0;
    const auto stopBefore = world_.coordinator.lastActiveAgentStoppedAt();
    world_.takeCalls();
    world_.time.advance(std::chrono::seconds(pick(300)));
    std::optional<Instant> reference;  // of the stop-time rule, for the operations under it
    switch (pick(10)) {
      case 0:
        sweep(stopBefore);
        break;
      case 1:
        world_.coordinator.removeSession(hookId());
        EXPECT_EQ(world_.coordinator.lastActiveAgentStoppedAt(), stopBefore);
        break;
      case 2:
      case 3:
      case 4:
        scan();
        reference = world_.time.now();
        break;
      case 5:
        reference = world_.time.now();
        world_.coordinator.registerProcessSession(agent(), pid(), coin(), 0.5);
        break;
      default:
        reference = sendEvent();
    }
    const auto after = world_.coordinator.sessions();
    const auto stop = world_.coordinator.lastActiveAgentStoppedAt();
    EXPECT_EQ(world_.coordinator.activeWorkingCount(), countWorking(after));
    EXPECT_LE(after.size(), limits_.sessions);
    EXPECT_TRUE(std::is_sorted(after.entries().begin(), after.entries().end(),
                               [](const auto& a, const auto& b) { return a->id < b->id; }));
    if (reference) checkStopTimeRule(workedBefore, countWorking(after) > 0, stopBefore, stop, *reference);
    if (world_.recorder->calls == 0) {
      EXPECT_EQ(stop, stopBefore) << "a change that nobody was told of";
    } else {
      EXPECT_EQ(world_.recorder->stoppedAt, stop);
      EXPECT_EQ(world_.recorder->latest.size(), after.size());
    }
    if (pick(20) == 0) remembered_.emplace_back(after);
  }

  void checkSnapshots() const {
    for (const auto& one : remembered_) EXPECT_TRUE(one.isUnchanged());
  }

 private:
  int pick(int below) { return std::uniform_int_distribution<>(0, below - 1)(random_); }
  bool coin() { return pick(2) == 0; }
  AgentType agent() { return allAgentTypes[static_cast<std::size_t>(pick(4))]; }
  std::int32_t pid() { return 1 + pick(5); }
  std::string hookId() { return pick(8) == 0 ? "proc-claude-1" : "s" + std::to_string(pick(6)); }

  Instant sendEvent() {
    auto made = event(hookId(), agent(), allAgentStates[static_cast<std::size_t>(pick(7))],
                      unixSeconds(world_.time.now()) - pick(20));
    if (coin()) made.pid = pid();
    world_.coordinator.didReceiveHookEvent(made);
    EXPECT_EQ(world_.recorder->calls, 1);
    return made.timestamp;
  }

  void scan() {
    std::vector<ProcessMatch> matches;
    for (int i = pick(4); i > 0; --i) matches.push_back(match(agent(), pid(), coin()));
    world_.coordinator.syncProcessSessions(matches);
    const auto after = world_.coordinator.sessions();
    for (const auto& entry : after.entries()) {
      if (entry->integrationType != IntegrationType::process || !entry->pid) continue;
      EXPECT_TRUE(std::any_of(matches.begin(), matches.end(),
                              [&](const auto& one) { return one.pid == *entry->pid; }));
    }
  }

  void sweep(std::optional<Instant> stopBefore) {
    const auto now = world_.time.now();
    world_.coordinator.sweepStaleSessions(now);
    bool any = false;
    for (const auto& entry : world_.coordinator.sessions().entries()) {
      if (now - entry->lastEventAt <= Seconds{900}) continue;
      any = true;
      EXPECT_EQ(entry->state, AgentState::stale);
    }
    EXPECT_EQ(world_.recorder->calls, any ? 1 : 0);
    const bool stamps = any && world_.coordinator.activeWorkingCount() == 0 && !stopBefore;
    EXPECT_EQ(world_.coordinator.lastActiveAgentStoppedAt(), stamps ? std::optional(now) : stopBefore);
  }

  static void checkStopTimeRule(bool before, bool after, std::optional<Instant> stopBefore,
                                std::optional<Instant> stop, Instant reference) {
    if (after) {
      EXPECT_EQ(stop, std::nullopt);
    } else if (before) {
      EXPECT_EQ(stop, reference);
    } else {
      EXPECT_EQ(stop, stopBefore);
    }
  }

  CoordinatorWorld world_;
  const SessionLimits limits_;
  std::mt19937 random_;
  std::vector<Remembered> remembered_;
};

TEST(AgentStateCoordinatorProperties, holdThroughRandomEventsScansAndSweeps) {
  const auto silence = logging::setSink([](auto, auto, auto, auto) {});
  for (unsigned seed = 1; seed <= 40; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    RandomRun run(seed, seed % 2 == 0 ? SessionLimits{} : SessionLimits{.sessions = 5, .textBytes = 400});
    for (int i = 0; i < 300; ++i) run.step();
    run.checkSnapshots();
    if (testing::Test::HasFailure()) break;
  }
  logging::setSink(silence);
}

}  // namespace
}  // namespace vimbrel
