// SPDX-License-Identifier: Apache-2.0
#include "DeepHold/DeepHoldLeaseStore.h"

#include <gtest/gtest.h>
#include <rapidcheck.h>
#include <unistd.h>

#include "LeaseStoreWorld.h"
#include "TemporaryDirectory.h"

namespace vimbrel {
namespace {

using Writes = std::vector<bool>;

TEST(DeepHoldLeaseStore, letsNoLeaseIdForgeLinesOfTheLog) {
  LeaseStoreWorld world;
  const LogCapture log;
  const std::string forging = "x\nerror y";
  world.store->acquire(forging, 60);
  world.store->acquire(forging, 60);
  world.store->release("A\nerror B");
  world.store->renew(forging, 30);
  EXPECT_EQ(log.lines, (std::vector<std::string>{
                           "info Acquired deep hold lease x?error y (TTL: 60s, original: false)",
                           "info Renewed existing deep hold with lease x?error y",
                           "error Release request for lease A?error B ignored, active is x?error y",
                           "debug Renewed lease x?error y until 2001-01-01T00:17:10Z"}));
}

TEST(DeepHoldLeaseStore, keepsALeaseWhoseSettingCouldNotBeWritten) {
  LeaseStoreWorld world;
  world.power->works = false;
  EXPECT_TRUE(world.store->acquire("A", 60));
  EXPECT_EQ(world.store->status().activeLeaseId, "A");
  EXPECT_FALSE(world.store->status().currentSystemSleepDisabled);
  EXPECT_TRUE(world.store->release("A"));
  EXPECT_EQ(world.power->writes, (Writes{true, false}));
}

TEST(DeepHoldLeaseStore, takesUpItsStateFileAndRestoresWhatTheExpiryDemands) {
  const TemporaryDirectory directory;
  LeaseStoreWorld world(directory.file("state.json"));
  world.store->acquire("A", 60);
  EXPECT_EQ(readFile(directory.file("state.json")).value(),
            R"({"activeLeaseId":"A","expiresAt":1060.0,"isHolding":true,"originalSleepDisabled":false})");

  world.restart();
  EXPECT_EQ(world.store->status().activeLeaseId, "A");
  world.now += Seconds{61};
  world.restart();
  EXPECT_EQ(world.power->writes, Writes{true}) << "construction changes nothing";
  EXPECT_TRUE(world.store->checkWatchdog());
  EXPECT_EQ(world.power->writes, (Writes{true, false}));
  EXPECT_EQ(readFile(directory.file("state.json")).value(),
            R"({"isHolding":false,"originalSleepDisabled":false})");
}

TEST(DeepHoldLeaseStore, keepsAHoldOfWhichTheFileNamesNoEndUntilSomebodyReleasesIt) {
  const TemporaryDirectory directory;
  ASSERT_TRUE(
      replaceFile(directory.file("state.json"), R"({"isHolding":true,"originalSleepDisabled":false})"));
  LeaseStoreWorld world(directory.file("state.json"));
  world.now += Seconds{1e9};
  EXPECT_FALSE(world.store->checkWatchdog());
  EXPECT_TRUE(world.store->status().isDeepHoldActive);
  EXPECT_TRUE(world.store->release("whoever")) << "no lease is named that another could be told from";
  EXPECT_EQ(world.power->writes, Writes{false});
}

TEST(DeepHoldLeaseStore, startsIdleOverAFileThatIsNoState) {
  const TemporaryDirectory directory;
  const auto path = directory.file("state.json");
  const std::string whole = R"({"isHolding":true,"originalSleepDisabled":false,"activeLeaseId":"A"})";
  std::vector<std::string> contents{"",
                                    "null",
                                    "[]",
                                    R"({"isHolding":1,"originalSleepDisabled":false})",
                                    R"({"isHolding":true})",
                                    std::string(100'000, 'x'),
                                    std::string("\0\0", 2)};
  for (std::size_t length = 0; length < whole.size(); length += 7)
    contents.push_back(whole.substr(0, length));
  for (const auto& text : contents) {
    ASSERT_TRUE(replaceFile(path, text));
    LeaseStoreWorld world(path);
    EXPECT_FALSE(world.store->status().isDeepHoldActive) << text.substr(0, 80);
    EXPECT_TRUE(world.power->writes.empty());
  }
  // A path that cannot be written to changes nothing for the lease.
  LeaseStoreWorld world(directory.path() + "/no/such/directory/state.json");
  EXPECT_TRUE(world.store->acquire("A", 60));
  EXPECT_TRUE(world.store->release("A"));
  EXPECT_EQ(world.power->writes, (Writes{true, false}));
}

/// What the store promises, without how: one lease, its end, and what the setting was before it. What is as
/// it should be is not written.
struct Model {
  std::optional<std::pair<std::string, double>> lease;
  bool original = false;
  bool setting = false;
  Writes writes;

  void set(bool value) {
    if (std::exchange(setting, value) != value) writes.push_back(value);
  }
  void acquire(const std::string& id, double end) {
    if (!lease) {
      original = setting;
      set(true);
    }
    lease = {id, end};
  }
  void renew(const std::string& id, double end) {
    if (lease) lease = {id, end};
  }
  void release() {
    if (lease) set(original);
    lease.reset();
  }
};

TEST(DeepHoldLeaseStore, behavesAsItsModelThroughRandomHistories) {
  const TemporaryDirectory directory;
  const LogCapture quiet;
  EXPECT_TRUE(rc::check([&] {
    const auto path = directory.file("model.json");
    (void)::unlink(path.c_str());
    LeaseStoreWorld world(path);
    Model model;
    model.setting = world.power->disabled = *rc::gen::arbitrary<bool>();
    const auto id = [] { return std::string(1, *rc::gen::element('A', 'B', 'C')); };
    for (int step = *rc::gen::inRange(0, 60); step > 0; --step) {
      // So few different times that an end is often reached to the second.
      const int ttl = 15 * *rc::gen::inRange(1, 5);
      const double end = unixSeconds(world.now) + ttl;
      const auto lease = id();
      switch (*rc::gen::inRange(0, 7)) {
        case 0:
          RC_ASSERT(world.store->acquire(lease, ttl));
          model.acquire(lease, end);
          break;
        case 1:
          RC_ASSERT(world.store->renew(lease, ttl) == model.lease.has_value());
          model.renew(lease, end);
          break;
        case 2: {
          const bool isRefused = model.lease && model.lease->first != lease;
          RC_ASSERT(world.store->release(lease) == !isRefused);
          if (!isRefused) model.release();
          break;
        }
        case 3:
          RC_ASSERT(world.store->release(std::nullopt));
          model.release();
          break;
        case 4: {
          const bool isExpired = model.lease && model.lease->second <= unixSeconds(world.now);
          RC_ASSERT(world.store->checkWatchdog() == isExpired);
          if (isExpired) model.release();
          break;
        }
        case 5:
          world.restart();
          break;
        default:
          world.now += Seconds{15.0 * *rc::gen::inRange(0, 5)};
      }
      const auto status = world.store->status();
      RC_ASSERT(world.power->writes == model.writes);
      RC_ASSERT(status.isDeepHoldActive == model.lease.has_value());
      RC_ASSERT(status.currentSystemSleepDisabled == model.setting);
      if (model.lease) {
        RC_ASSERT(*status.activeLeaseId == model.lease->first);
        RC_ASSERT(unixSeconds(*status.leaseExpiresAt) == model.lease->second);
        RC_ASSERT(*status.originalSleepDisabledState == model.original);
      } else {
        RC_ASSERT(!status.activeLeaseId && !status.leaseExpiresAt);
      }
    }
  }));
}

}  // namespace
}  // namespace vimbrel
