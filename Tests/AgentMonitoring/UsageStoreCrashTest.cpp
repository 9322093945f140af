// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <map>
#include <random>

#include "Support/EventLoop.h"
#include "UsageStoreWorld.h"

namespace vimbrel {
namespace {

/// Records events until it is killed, and tells the number of each whose `record` returned. The limits are so
/// small that whole writes, appends, rewrites on the queue and replacements follow each other all the time.
[[noreturn]] void recordUntilKilled(UsageStoreOptions options, int first, int report) {
  EventLoop loop;
  const SystemClock clock;
  auto store = UsageStore::open(options, loop.makeQueue("usage", QueueHome::background), clock);
  if (!store) ::_exit(2);
  for (int i = first;; ++i) {
    const auto event = turn("s" + std::to_string(i % 3), "t" + std::to_string(i), 1);
    bool accepted = (*store)->record(event);
    if (i % 5 == 0)
      accepted = (*store)->recordAll(
                     {{turn(event.sessionId, *event.turnId, 2), turn("x", "x" + std::to_string(i), 1)}}) == 2;
    if (i % 50 == 0) (*store)->stop();
    if (!accepted || ::write(report, &i, sizeof i) != sizeof i) ::_exit(3);
  }
}

TEST(UsageStoreCrash, everyEventThatWasAcceptedIsFoundOnceHoweverOftenTheProcessIsKilled) {
  UsageStoreWorld world;
  world.options.wholeFileBytes = 6000;
  world.options.syncDelay = std::chrono::milliseconds(1);
  std::mt19937 random(11);
  int next = 1;
  std::vector<int> accepted;
  for (int kill = 0; kill < 300; ++kill) {
    if (kill % 50 == 49) {  // Small stores, which are written whole, have their turn too.
      world.open().resetStore();
      world.store.reset();
      accepted.clear();
    }
    int report[2];
    ASSERT_EQ(::pipe2(report, O_CLOEXEC), 0);
    const pid_t child = ::fork();
    if (child == 0) {
      ::close(report[0]);
      recordUntilKilled(world.options, next, report[1]);
    }
    ::close(report[1]);
    const int target = std::uniform_int_distribution<int>(1, 25)(random);
    int last = 0;
    const auto hearOfOne = [&] {
      if (::read(report[0], &last, sizeof last) != sizeof last) return false;
      accepted.push_back(last);
      return true;
    };
    for (int i = 0; i < target && hearOfOne(); ++i) {
    }
    ::usleep(std::uniform_int_distribution<unsigned>(0, 400)(random));
    ::kill(child, SIGKILL);
    int status = 0;
    ::waitpid(child, &status, 0);
    ASSERT_TRUE(WIFSIGNALED(status)) << "exit status " << WEXITSTATUS(status);
    while (hearOfOne()) {
    }
    ::close(report[0]);
    ASSERT_NE(last, 0);
    next = last + 2;  // The next one may or may not have been accepted before the kill.

    if (kill % 7 != 0) continue;  // Mostly the next process finds what the killed one left.
    std::map<std::string, std::int64_t> found;
    for (const auto& event : world.open().allEvents()) {
      ASSERT_TRUE(found.emplace(event.deduplicationKey(), *event.totalTokens).second) << "found twice";
    }
    std::int64_t sum = 0;
    for (const auto& [key, tokens] : found) sum += tokens;
    std::int64_t sessions = 0;
    for (const auto& session : world.store->recentSessions()) sessions += session.totalTokens;
    EXPECT_EQ(sum, sessions);
    for (const int i : accepted) {
      const auto key = "claude_s" + std::to_string(i % 3) + "_t" + std::to_string(i);
      ASSERT_TRUE(found.contains(key)) << key << " is lost";
      ASSERT_EQ(found[key], i % 5 == 0 ? 2 : 1) << key;
    }
    world.store.reset();
  }
}

}  // namespace
}  // namespace vimbrel
