// SPDX-License-Identifier: Apache-2.0
#include "HelperService.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <limits>

#include "DeepHold/LeaseStoreWorld.h"
#include "Support/VirtualTime.h"
#include "TemporaryDirectory.h"

namespace vimbrel {
namespace {

using namespace std::chrono_literals;

constexpr uid_t someUser = 1000;

/// A helper's service in virtual time; `restart` is what follows a kill.
struct World {
  World() { restart(); }
  void restart() {
    if (service) power->disabled = false;  // The kernel gave the inhibitor of the killed process back.
    service = std::make_unique<HelperService>(
        HelperServiceParts{power, [] { return std::string("not today"); }, stateFile, time.mainQueue(),
                           [this] { uninstalled = true; }},
        time);
    service->start();
  }
  HelperResponse ask(HelperCommand command, std::optional<std::string> id = std::nullopt,
                     std::optional<double> ttl = std::nullopt, uid_t peer = someUser) {
    return service->answer({command, std::move(id), ttl}, peer);
  }
  bool acquire(const std::string& id, double ttl) { return ask(HelperCommand::acquire, id, ttl).ok; }

  TemporaryDirectory directory;
  std::string stateFile = directory.file("state.json");
  LogCapture log;
  VirtualTime time{instantFromReferenceSeconds(1000)};
  std::shared_ptr<RecordingPower> power = std::make_shared<RecordingPower>();
  std::unique_ptr<HelperService> service;
  bool uninstalled = false;
};

TEST(HelperService, letsGoAtTheVeryExpiryOfTheLatestRenewal) {
  World world;
  ASSERT_TRUE(world.acquire("A", 7));
  world.time.advance(6s);
  EXPECT_TRUE(world.ask(HelperCommand::renew, "A", 7).ok);
  world.time.advance(6999ms);
  EXPECT_TRUE(world.power->disabled);
  world.time.advance(2ms);
  EXPECT_FALSE(world.power->disabled);
  EXPECT_EQ(world.ask(HelperCommand::renew, "A", 7).error, "there is no lease to renew");
}

TEST(HelperService, letsGoInTimeAlthoughTheClockWasSetBack) {
  World world;
  ASSERT_TRUE(world.acquire("A", 60));
  world.time.jumpWallClock(Seconds{-86400});
  world.time.advance(59s);
  EXPECT_TRUE(world.power->disabled);
  world.time.advance(6s);
  EXPECT_FALSE(world.power->disabled);
  // Set forward, the lease is over by the wall clock; the watchdog sees that within its five seconds.
  ASSERT_TRUE(world.acquire("A", 60));
  world.time.jumpWallClock(Seconds{86400});
  world.time.advance(6s);
  EXPECT_FALSE(world.power->disabled);
}

TEST(HelperService, letsGoInTimeAlthoughItWasKilledAndTheClockSetBackBeforeOrAfterThat) {
  for (const bool isKilledFirst : {false, true}) {
    for (const double back : {30.0, 300.0}) {
      World world;
      ASSERT_TRUE(world.acquire("A", 60));
      world.time.advance(20s);
      if (isKilledFirst) world.restart();
      world.time.jumpWallClock(Seconds{-back});
      world.restart();
      EXPECT_TRUE(world.power->disabled) << "40 seconds are left";
      world.restart();  // Once more: nothing is forgotten by taking a lease up.
      world.time.advance(39s);
      EXPECT_TRUE(world.power->disabled);
      world.time.advance(6s);
      EXPECT_FALSE(world.power->disabled) << back;

      // Dead for longer than the lease had left.
      ASSERT_TRUE(world.acquire("B", 60));
      world.service.reset();
      world.time.jumpWallClock(Seconds{-back});
      world.time.advance(61s);
      world.restart();
      EXPECT_FALSE(world.power->disabled) << back;
    }
  }
}

TEST(HelperService, refusesWhatCannotBeALease) {
  World world;
  const struct {
    std::optional<std::string> id;
    std::optional<double> ttl;
    const char* why;
  } cases[] = {
      {std::nullopt, 60, "\"leaseId\" is missing"},
      {"A", std::nullopt, "\"ttlSeconds\" is missing"},
      {"A", 0, "\"ttlSeconds\" is not positive"},
      {"A", -1e300, "\"ttlSeconds\" is not positive"},
      {"A", 3600.001, "\"ttlSeconds\" is above one hour"},
      {"A", std::numeric_limits<double>::quiet_NaN(), "\"ttlSeconds\" is not a finite number"},
      {"A", std::numeric_limits<double>::infinity(), "\"ttlSeconds\" is not a finite number"},
      {std::string(257, 'x'), 60, "\"leaseId\" is longer than 256 bytes"},
  };
  for (const auto& item : cases) {
    EXPECT_EQ(world.ask(HelperCommand::acquire, item.id, item.ttl).error, item.why);
    EXPECT_FALSE(world.ask(HelperCommand::renew, item.id, item.ttl).ok);
  }
  EXPECT_TRUE(world.power->writes.empty());
  EXPECT_TRUE(world.acquire("", 3600)) << "ids are opaque";
}

TEST(HelperService, takesUpOnlyWhatASavedStateCanMean) {
  const std::string lease = R"({"isHolding":true,"activeLeaseId":"A",)";
  const struct {
    std::string state;
    const char* logged;  // the front of the one line that is logged about it
  } cases[] = {
      {lease + R"("expiresAt":1030,"originalSleepDisabled":false})", "info Took the deep hold up again"},
      {lease + R"("expiresAt":999,"originalSleepDisabled":false})", "error Lease expired at"},
      {lease + R"("expiresAt":9999,"originalSleepDisabled":false})",
       "error Letting go of the saved state: a lease of more than an hour"},
      {lease + R"("expiresAt":1030,"originalSleepDisabled":true})",
       "error Letting go of the saved state: a setting from before"},
      {lease + R"("originalSleepDisabled":false})", "error Letting go of the saved state: a lease without"},
      {R"({"isHolding":true,"acti)", "error Starting without a lease: "},
      {"", "error Starting without a lease: "},
      {R"({"version":3,"windows":[]})", "error Starting without a lease: "},
  };
  for (const auto& [state, logged] : cases) {
    World world;
    world.log.lines.clear();
    ASSERT_TRUE(replaceFile(world.stateFile, state));
    world.restart();
    EXPECT_EQ(world.power->disabled, std::string_view(logged).starts_with("info")) << state;
    EXPECT_TRUE(std::ranges::any_of(world.log.lines, [&](const auto& line) {
      return line.starts_with(logged);
    })) << state;
    world.time.advance(31s);
    EXPECT_FALSE(world.power->disabled) << state;
  }
}

TEST(HelperService, saysThatItsStateCannotBeKept) {
  World world;
  world.stateFile = "/dev/null/state.json";
  world.restart();
  EXPECT_TRUE(world.log.lines.at(1).starts_with("error A lease will not survive a restart of the helper"));
  EXPECT_TRUE(world.acquire("A", 60));
  world.service->stop();
  EXPECT_FALSE(world.power->disabled);
}

TEST(HelperService, saysWhyItCannotHoldAndGoesOnTryingForAsLongAsTheLease) {
  World world;
  world.power->works = false;
  EXPECT_EQ(world.ask(HelperCommand::acquire, "A", 60).error,
            "the system does not let the helper disable sleep: not today");
  world.power->works = true;
  world.time.advance(6s);
  EXPECT_TRUE(world.power->disabled) << "the service behind the setting came back";
  world.power->disabled = false;
  world.time.advance(5s);
  EXPECT_TRUE(world.power->disabled) << "it lost the inhibitor";
  EXPECT_TRUE(world.ask(HelperCommand::release, "A").ok);
  world.time.advance(3600s);
  EXPECT_FALSE(world.power->disabled);
}

TEST(HelperService, isRemovedByRootAlone) {
  World world;
  world.acquire("A", 60);
  EXPECT_FALSE(world.ask(HelperCommand::uninstall).ok);
  world.time.runReady();
  EXPECT_FALSE(world.uninstalled);
  EXPECT_TRUE(world.ask(HelperCommand::uninstall, std::nullopt, std::nullopt, 0).ok);
  world.time.runReady();
  EXPECT_TRUE(world.uninstalled);
  EXPECT_FALSE(world.power->disabled);
  EXPECT_FALSE(std::filesystem::exists(world.stateFile));
}

}  // namespace
}  // namespace vimbrel
