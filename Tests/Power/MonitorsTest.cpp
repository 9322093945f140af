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

/// A sensor or switch of which a test says what it reads.
template <typename Port, typename Value>
struct FakeSensor : Port {
  Token watch(std::function<void()> changed) override {
    ++watches;
    return isObservable ? signal.subscribe(std::move(changed)) : Token{};
  }
  void become(Value now) {
    value = std::move(now);
    signal.send();
  }
  Value value{};
  bool isObservable = true;
  int watches = 0;
  ChangeSignal signal;
};
struct FakeSources final : FakeSensor<PowerSources, std::vector<PowerSourceDescription>> {
  std::vector<PowerSourceDescription> read() override { return value; }
  bool isLowPowerModeEnabled() override { return true; }
};
struct FakeThermal final : FakeSensor<ThermalPressure, int> {
  int level() override { return value; }
};
struct FakeLid final : FakeSensor<LidSwitch, std::optional<bool>> {
  std::optional<bool> isClosed() override { return value; }
};

TEST(BatteryMonitor, mapsThePlatformsDescription) {
  struct Case {
    PowerSourceDescription source;
    PowerSourceSnapshot expected;
  };
  const std::string ac = "AC Power";
  const std::string battery = "Battery Power";
  constexpr auto huge = std::numeric_limits<std::int64_t>::max();
  const Case cases[] = {
      {{battery, false, 47, 100, 90}, {47, false, false, true, 90}},
      {{ac, true, 47, 100, {}}, {47, true, true, true, {}}},
      {{ac, {}, 47, {}, {}}, {47, false, true, true, {}}},  // no maximum means 100
      {{ac, {}, 47, 0, {}}, {{}, false, true, true, {}}},
      {{ac, {}, {}, 100, {}}, {{}, false, true, true, {}}},
      {{ac, {}, 4999, 5000, {}}, {99, false, true, true, {}}},  // the fraction is dropped
      {{ac, {}, huge, 1, {}}, {1'000'000'000'000'000, false, true, true, {}}},
      {{battery, {}, 5, 100, 0}, {5, false, false, true, {}}},  // no minutes mean an unknown time
      {{battery, {}, 5, 100, -1}, {5, false, false, true, {}}},
      {{battery, {}, 5, 100, 1}, {5, false, false, true, 1}},
      {{"UPS Power", {}, 5, 100, {}}, {5, false, false, true, {}}},
      {{{}, {}, 5, 100, {}}, {5, false, false, true, {}}},
  };
  const auto platform = std::make_shared<FakeSources>();
  EXPECT_EQ(BatteryMonitor(platform).currentSnapshot(), PowerSourceSnapshot::desktopDefault());
  for (const auto& [source, expected] : cases) {
    platform->value = {source, {"Battery Power", true, 1, 100, 1}};  // Only the first one counts.
    EXPECT_EQ(BatteryMonitor(platform).queryPowerSource(), expected);
  }
}

TEST(BatteryMonitor, observesOnceAndPassesEveryNotificationOn) {
  const CapturedLog quiet;
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
  platform->become({});
  for (int i = 0; i < 2; ++i) platform->become({{"Battery Power", false, 30, 100, {}}});
  EXPECT_THAT(seen, ElementsAre(std::nullopt, 30, 30));
  monitor.stop();
  monitor.stop();
  platform->isObservable = false;
  platform->become({{"AC Power", true, 40, 100, {}}});
  EXPECT_EQ(seen.size(), 3u);
  EXPECT_EQ(monitor.currentSnapshot().batteryPercent, 30);
  monitor.start();
  EXPECT_EQ(monitor.currentSnapshot().batteryPercent, 40)
      << "read at its start, though it cannot be observed";
}

TEST(ThermalMonitor, mapsLevelsAndPassesEveryNotificationOn) {
  CapturedLog log;
  const auto platform = std::make_shared<FakeThermal>();
  std::optional<ThermalMonitor> monitor(platform);
  std::vector<SystemThermalState> seen;
  monitor->setOnThermalStateChanged([&](SystemThermalState state) { seen.push_back(state); });
  monitor->start();
  monitor->start();
  for (const int level : {2, 2, 7, 3}) platform->become(level);
  using enum SystemThermalState;
  EXPECT_THAT(seen, ElementsAre(serious, serious, nominal, critical));
  EXPECT_EQ(monitor->currentThermalState(), critical);
  monitor->stop();
  monitor->stop();
  platform->become(0);
  monitor->start();
  monitor.reset();
  platform->become(0);
  EXPECT_EQ(seen.size(), 4u) << "neither after its stop nor after its end";
  EXPECT_EQ(log.take().at(1), "info thermal: Thermal state changed to: serious");
}

TEST(LidMonitor, countsAnUnknownLidAsOpenAndReportsChanges) {
  const CapturedLog quiet;
  const auto platform = std::make_shared<FakeLid>();
  LidMonitor monitor(platform);
  EXPECT_FALSE(monitor.isLidClosed());
  std::vector<bool> seen;
  monitor.setOnLidStateChanged([&](bool closed) {
    EXPECT_EQ(monitor.isLidClosed(), closed);
    seen.push_back(closed);
  });
  platform->value = true;
  monitor.start();
  monitor.start();
  EXPECT_TRUE(monitor.isLidClosed());
  platform->become(false);
  platform->become(std::nullopt);
  EXPECT_THAT(seen, ElementsAre(false, false));
}

}  // namespace
}  // namespace vimbrel
