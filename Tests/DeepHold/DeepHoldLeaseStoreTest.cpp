// SPDX-License-Identifier: Apache-2.0
#include "DeepHold/DeepHoldLeaseStore.h"

#include <gtest/gtest.h>
#include <rapidcheck.h>
#include <unistd.h>

#include <functional>

#include "LeaseStoreWorld.h"
#include "TemporaryDirectory.h"

namespace vimbrel {
namespace {

using Lines = std::vector<std::string>;
using Writes = std::vector<bool>;

struct Rule {
  const char* name;
  bool sleepAlreadyDisabled;
  std::function<void(LeaseStoreWorld&)> act;
  std::optional<std::string> holder;  // of the lease in the end
  Writes writes;
  Lines log;
};

class LeaseStoreRules : public testing::TestWithParam<Rule> {};

TEST_P(LeaseStoreRules, hold) {
  const auto& rule = GetParam();
  LeaseStoreWorld world;
  world.power->disabled = rule.sleepAlreadyDisabled;
  world.restart();
  const LogCapture log;
  rule.act(world);
  EXPECT_EQ(world.power->writes, rule.writes);
  EXPECT_EQ(log.lines, rule.log);
  const auto status = world.store->status();
  EXPECT_TRUE(status.isHelperInstalled);
  EXPECT_EQ(status.activeLeaseId, rule.holder);
  EXPECT_EQ(status.isDeepHoldActive, rule.holder.has_value());
  EXPECT_EQ(status.leaseExpiresAt.has_value(), rule.holder.has_value());
  EXPECT_EQ(status.originalSleepDisabledState, rule.sleepAlreadyDisabled);
  EXPECT_EQ(status.currentSystemSleepDisabled, world.power->disabled);
}

const char* const acquiredA = "info Acquired deep hold lease A (TTL: 60s, original: false)";
const char* const restored = "info Restored system sleep state to original: sleep enabled";

INSTANTIATE_TEST_SUITE_P(
    Rules, LeaseStoreRules,
    testing::Values(
        Rule{"acquireDisablesSleepOnce",
             false,
             [](LeaseStoreWorld& w) {
               EXPECT_TRUE(w.store->acquire("A", 60.9));
               EXPECT_EQ(w.store->status().leaseExpiresAt, w.now + Seconds{60.9});
             },
             "A",
             {true},
             {acquiredA}},
        Rule{"anotherAcquireTakesTheLeaseOver",
             false,
             [](LeaseStoreWorld& w) {
               w.store->acquire("A", 60);
               EXPECT_TRUE(w.store->acquire("B", 90));
               EXPECT_EQ(w.store->status().leaseExpiresAt, w.now + Seconds{90});
               EXPECT_FALSE(w.store->release("A"));
             },
             "B",
             {true},
             {acquiredA, "info Renewed existing deep hold with lease B",
              "error Release request for lease A ignored, active is B"}},
        Rule{"releaseWithoutAnIdAlwaysReleases",
             false,
             [](LeaseStoreWorld& w) {
               w.store->acquire("A", 60);
               EXPECT_TRUE(w.store->release(std::nullopt));
               EXPECT_TRUE(w.store->release("A")) << "there is nothing left to do";
             },
             std::nullopt,
             {true, false},
             {acquiredA, restored}},
        Rule{"renewWhileIdleIsRefused",
             false,
             [](LeaseStoreWorld& w) { EXPECT_FALSE(w.store->renew("Z", 30)); },
             std::nullopt,
             {},
             {}},
        Rule{"theRenewingLeaseBecomesTheActiveOne",
             false,
             [](LeaseStoreWorld& w) {
               w.store->acquire("A", 60);
               EXPECT_TRUE(w.store->renew("Z", 30));
             },
             "Z",
             {true},
             {acquiredA, "debug Renewed lease Z until 2001-01-01T00:17:10Z"}},
        Rule{"theWatchdogWaitsForTheExpiryAndNoLonger",
             false,
             [](LeaseStoreWorld& w) {
               w.store->acquire("A", 60);
               w.now += Seconds{59};
               EXPECT_FALSE(w.store->checkWatchdog());
               w.now += Seconds{1};
               EXPECT_TRUE(w.store->checkWatchdog());
               EXPECT_FALSE(w.store->checkWatchdog());
             },
             std::nullopt,
             {true, false},
             {acquiredA,
              "error Lease expired at 2001-01-01T00:17:40Z (current time: 2001-01-01T00:17:40Z). Watchdog "
              "releasing deep hold!",
              restored}},
        Rule{"aSettingThatWasOnStaysOn",
             true,
             [](LeaseStoreWorld& w) {
               w.store->acquire("A", 60);
               w.store->release("A");
             },
             std::nullopt,
             {},
             {"info Acquired deep hold lease A (TTL: 60s, original: true)",
              "info Prior state was already sleep disabled, leaving untouched"}},
        Rule{"aFailedWriteDoesNotChangeTheLease",
             false,
             [](LeaseStoreWorld& w) {
               w.power->works = false;
               EXPECT_TRUE(w.store->acquire("A", 60));
             },
             "A",
             {true},
             {acquiredA}},
        Rule{"aLeaseIdCannotForgeLinesOfTheLog",
             false,
             [](LeaseStoreWorld& w) {
               w.store->acquire("x\nerror y", 1);
               w.store->release(std::nullopt);
             },
             std::nullopt,
             {true, false},
             {"info Acquired deep hold lease x?error y (TTL: 1s, original: false)", restored}}),
    [](const auto& instance) { return std::string(instance.param.name); });

TEST(DeepHoldLeaseStore, takesUpItsStateFileAndRestoresWhatTheExpiryDemands) {
  const TemporaryDirectory directory;
  LeaseStoreWorld world(directory.file("state.json"));
  world.store->acquire("A", 60);
  EXPECT_EQ(readFile(directory.file("state.json")).value(),
            R"({"activeLeaseId":"A","expiresAt":1060.0,"isHolding":true,"originalSleepDisabled":false})");

  world.restart();
  EXPECT_EQ(world.store->status().activeLeaseId, "A");
  EXPECT_FALSE(world.store->checkWatchdog());
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

/// What the store promises, without how: one lease, its end, and what the setting was before it.
struct Model {
  std::optional<std::pair<std::string, double>> lease;
  bool original = false;
  bool setting = false;

  void acquire(const std::string& id, double end) {
    if (!lease) original = std::exchange(setting, true);
    lease = {id, end};
  }
  void renew(const std::string& id, double end) {
    if (lease) lease = {id, end};
  }
  void release() {
    if (lease) setting = original;
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
      const int ttl = *rc::gen::inRange(1, 100);
      const double end = unixSeconds(world.now) + ttl;
      switch (*rc::gen::inRange(0, 7)) {
        case 0: {
          const auto lease = id();
          RC_ASSERT(world.store->acquire(lease, ttl));
          model.acquire(lease, end);
          break;
        }
        case 1: {
          const auto lease = id();
          RC_ASSERT(world.store->renew(lease, ttl) == model.lease.has_value());
          model.renew(lease, end);
          break;
        }
        case 2: {
          const auto lease = id();
          const bool refused = model.lease && model.lease->first != lease;
          RC_ASSERT(world.store->release(lease) == !refused);
          if (!refused) model.release();
          break;
        }
        case 3:
          RC_ASSERT(world.store->release(std::nullopt));
          model.release();
          break;
        case 4: {
          const bool expired = model.lease && model.lease->second <= unixSeconds(world.now);
          RC_ASSERT(world.store->checkWatchdog() == expired);
          if (expired) model.release();
          break;
        }
        case 5:
          world.restart();
          break;
        default:
          world.now += Seconds{static_cast<double>(*rc::gen::inRange(0, 70))};
      }
      const auto status = world.store->status();
      RC_ASSERT(status.isDeepHoldActive == model.lease.has_value());
      RC_ASSERT(status.currentSystemSleepDisabled == model.setting);
      if (model.lease) {
        RC_ASSERT(*status.activeLeaseId == model.lease->first);
        RC_ASSERT(unixSeconds(*status.leaseExpiresAt) == model.lease->second);
        RC_ASSERT(*status.originalSleepDisabledState == model.original);
      }
    }
  }));
}

}  // namespace
}  // namespace vimbrel
