// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>

#include "CapturedLog.h"
#include "Power/BatteryMonitor.h"
#include "Power/LidMonitor.h"
#include "Power/ThermalMonitor.h"
#include "Support/Published.h"

namespace vimbrel {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

struct FakeSources final : PowerSources {
  std::vector<PowerSourceDescription> read() override { return sources; }
  bool isLowPowerModeEnabled() override { return lowPower; }
  Token watch(std::function<void()> changed) override {
    ++watches;
    return observable ? signal.subscribe(std::move(changed)) : Token{};
  }
  std::vector<PowerSourceDescription> sources;
  bool lowPower = false;
  bool observable = true;
  int watches = 0;
  ChangeSignal signal;
};

struct FakeThermal final : ThermalPressure {
  int level() override { return value; }
  Token watch(std::function<void()> changed) override { return signal.subscribe(std::move(changed)); }
  int value = 0;
  ChangeSignal signal;
};

struct FakeLid final : LidSwitch {
  std::optional<bool> isClosed() override { return closed; }
  Token watch(std::function<void()> changed) override { return signal.subscribe(std::move(changed)); }
  std::optional<bool> closed;
  ChangeSignal signal;
};

TEST(BatteryMonitor, mapsThePlatformsDescription) {
  struct Case {
    const char* name;
    PowerSourceDescription source;
    PowerSourceSnapshot expected;
  };
  const std::string ac = "AC Power";
  const std::string battery = "Battery Power";
  constexpr auto huge = std::numeric_limits<std::int64_t>::max();
  const Case cases[] = {
      {"47 of 100", {battery, false, 47, 100, 90}, {47, false, false, true, 90}},
      {"charging", {ac, true, 47, 100, {}}, {47, true, true, true, {}}},
      {"no maximum means 100", {ac, {}, 47, {}, {}}, {47, false, true, true, {}}},
      {"a maximum of 0", {ac, {}, 47, 0, {}}, {{}, false, true, true, {}}},
      {"no current capacity", {ac, {}, {}, 100, {}}, {{}, false, true, true, {}}},
      {"the fraction is dropped", {ac, {}, 4999, 5000, {}}, {99, false, true, true, {}}},
      {"an absurd capacity", {ac, {}, huge, 1, {}}, {1'000'000'000'000'000, false, true, true, {}}},
      {"0 minutes mean unknown", {battery, {}, 5, 100, 0}, {5, false, false, true, {}}},
      {"-1 minute means unknown", {battery, {}, 5, 100, -1}, {5, false, false, true, {}}},
      {"1 minute", {battery, {}, 5, 100, 1}, {5, false, false, true, 1}},
      {"another state is not AC", {"UPS Power", {}, 5, 100, {}}, {5, false, false, true, {}}},
      {"no state is not AC", {{}, {}, 5, 100, {}}, {5, false, false, true, {}}},
  };
  for (const auto& [name, source, expected] : cases) {
    const auto platform = std::make_shared<FakeSources>();
    platform->sources = {source, {"Battery Power", true, 1, 100, 1}};  // Only the first one counts.
    platform->lowPower = true;
    EXPECT_EQ(BatteryMonitor(platform).queryPowerSource(), expected) << name;
  }
}

TEST(BatteryMonitor, countsAsOnACWithoutAnySource) {
  const auto platform = std::make_shared<FakeSources>();
  platform->lowPower = true;
  EXPECT_EQ(BatteryMonitor(platform).currentSnapshot(), PowerSourceSnapshot::desktopDefault());
}

TEST(BatteryMonitor, observesOnceAndPassesEveryNotificationOn) {
  CapturedLog log;
  const auto platform = std::make_shared<FakeSources>();
  BatteryMonitor monitor(platform);
  std::vector<std::optional<std::int64_t>> seen;
  monitor.setOnPowerSourceChanged([&](const PowerSourceSnapshot& snapshot) {
    EXPECT_EQ(monitor.currentSnapshot(), snapshot);  // No lock is held here, and the cache is new.
    seen.push_back(snapshot.batteryPercent);
  });
  monitor.start();
  monitor.start();
  EXPECT_EQ(platform->watches, 1);
  platform->signal.send();
  platform->sources = {{"Battery Power", false, 30, 100, {}}};
  platform->signal.send();
  platform->signal.send();
  EXPECT_THAT(seen, ElementsAre(std::nullopt, 30, 30));
  monitor.stop();
  monitor.stop();
  platform->signal.send();
  EXPECT_EQ(seen.size(), 3u);
  EXPECT_THAT(log.take(), ElementsAre("info battery: Battery monitor started observing power sources",
                                      "debug battery: Power source changed: isOnAC=true percent=-1%",
                                      "debug battery: Power source changed: isOnAC=false percent=30%",
                                      "debug battery: Power source changed: isOnAC=false percent=30%",
                                      "info battery: Battery monitor stopped"));
}

TEST(BatteryMonitor, readsAtStartWhereChangesCannotBeObserved) {
  CapturedLog log;
  const auto platform = std::make_shared<FakeSources>();
  platform->observable = false;
  BatteryMonitor monitor(platform);
  platform->sources = {{"AC Power", true, 30, 100, {}}};
  monitor.start();
  EXPECT_EQ(monitor.currentSnapshot().batteryPercent, 30);
  EXPECT_THAT(log.take(), IsEmpty());
}

TEST(ThermalMonitor, mapsLevelsAndPassesEveryNotificationOn) {
  CapturedLog log;
  const auto platform = std::make_shared<FakeThermal>();
  ThermalMonitor monitor(platform);
  std::vector<SystemThermalState> seen;
  monitor.setOnThermalStateChanged([&](SystemThermalState state) { seen.push_back(state); });
  monitor.start();
  monitor.start();
  for (const int level : {2, 2, 7, 3}) {
    platform->value = level;
    platform->signal.send();
  }
  using enum SystemThermalState;
  EXPECT_THAT(seen, ElementsAre(serious, serious, nominal, critical));
  EXPECT_EQ(monitor.currentThermalState(), critical);
  monitor.stop();
  monitor.stop();
  platform->signal.send();
  EXPECT_EQ(seen.size(), 4u);
  EXPECT_THAT(log.take(), ElementsAre("info thermal: Thermal monitor started observing thermal state",
                                      "info thermal: Thermal state changed to: serious",
                                      "info thermal: Thermal state changed to: serious",
                                      "info thermal: Thermal state changed to: nominal",
                                      "info thermal: Thermal state changed to: critical",
                                      "info thermal: Thermal monitor stopped"));
}

TEST(LidMonitor, countsAnUnknownLidAsOpenAndReportsChanges) {
  CapturedLog log;
  const auto platform = std::make_shared<FakeLid>();
  LidMonitor monitor(platform);
  EXPECT_FALSE(monitor.isLidClosed());
  std::vector<bool> seen;
  monitor.setOnLidStateChanged([&](bool closed) {
    EXPECT_EQ(monitor.isLidClosed(), closed);
    seen.push_back(closed);
  });
  platform->closed = true;
  monitor.start();
  monitor.start();
  EXPECT_TRUE(monitor.isLidClosed());
  platform->closed = false;
  platform->signal.send();
  platform->closed = std::nullopt;
  platform->signal.send();
  EXPECT_THAT(seen, ElementsAre(false, false));
  EXPECT_EQ(log.take().front(), "info lid: Lid monitor initialized (isLidClosed: true)");
}

TEST(Monitors, ignoreThePlatformAfterTheirEnd) {
  const auto platform = std::make_shared<FakeThermal>();
  int calls = 0;
  {
    ThermalMonitor monitor(platform);
    monitor.setOnThermalStateChanged([&](SystemThermalState) { ++calls; });
    monitor.start();
  }
  platform->signal.send();
  EXPECT_EQ(calls, 0);
}

}  // namespace
}  // namespace vimbrel
