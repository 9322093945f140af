// SPDX-License-Identifier: Apache-2.0
#include "System/SettingsStore.h"

#include <gtest/gtest.h>

#include <cmath>

#include "Support/VirtualTime.h"
#include "System/SettingDescriptions.h"

namespace vimbrel {
namespace {

using namespace std::chrono_literals;
const Instant noon = instantFromUnixSeconds(1'800'000'000);

struct Settings : testing::Test {
  VirtualTime time{noon};
  std::shared_ptr<MemoryPreferences> preferences = std::make_shared<MemoryPreferences>();
  SettingsStore store{preferences, time};
  int announced = 0;
  Token token = store.objectWillChange().subscribe([this] { ++announced; });

  void place(std::string_view key, PreferenceValue value) {
    const Preferences::Change change{key, std::move(value)};
    ASSERT_TRUE(preferences->store(std::span(&change, 1)));
  }
};

TEST_F(Settings, boundTheFloorWhenWrittenAndAgainForThePolicy) {
  for (const auto& [written, stored] : {std::pair{2, 5}, {80, 50}, {20, 20}}) {
    ASSERT_TRUE(store.setBatteryFloorPercent(written));
    EXPECT_EQ(store.batteryFloorPercent(), stored);
  }
  place("batteryFloorPercent", std::int64_t{70});
  EXPECT_EQ(store.batteryFloorPercent(), 70);
  EXPECT_EQ(store.policyConfig().batteryFloorPercent, 50);

  for (const double delay : {-10.0, std::nan("")}) {
    ASSERT_TRUE(store.setReleaseDelaySeconds(delay));
    EXPECT_EQ(store.policyConfig().releaseDebounceSeconds, 0);
  }
}

TEST_F(Settings, announceEveryWriteAlsoOfEqualValues) {
  ASSERT_TRUE(store.setMasterEnabled(true));
  ASSERT_TRUE(store.setMasterEnabled(true));
  EXPECT_EQ(announced, 2);
  ASSERT_TRUE(store.pause(1h));
  EXPECT_EQ(store.pauseUntil(), noon + 1h);
  time.advance(2h);
  EXPECT_EQ(store.pauseUntil(), noon + 1h) << "a pause that is over stays stored";
  ASSERT_TRUE(store.resume());
  EXPECT_EQ(store.pauseUntil(), std::nullopt);
  EXPECT_EQ(announced, 4);

  EXPECT_FALSE(store.setValue("batteryFloorPercent", true));
  EXPECT_FALSE(store.setValue("colour", true));
  EXPECT_EQ(announced, 4);
}

TEST_F(Settings, resetAllButTheLoginItem) {
  for (const auto& setting : settingDescriptions()) {
    if (const auto* flag = std::get_if<bool>(&setting.defaultValue)) {
      ASSERT_TRUE(store.setValue(setting.key, !*flag));
    }
  }
  ASSERT_TRUE(store.pause(1h));
  announced = 0;
  ASSERT_TRUE(store.resetToDefaults());
  EXPECT_EQ(announced, 11);
  for (const auto& setting : settingDescriptions()) {
    EXPECT_EQ(store.value(setting.key) == setting.defaultValue, setting.resetWithOthers) << setting.key;
  }
  EXPECT_EQ(store.policyConfig(), PolicyConfiguration{});
}

TEST_F(Settings, readWhatPeopleTypeAndSayWhatTheyTake) {
  struct Row {
    const char* key;
    const char* text;
    std::expected<PreferenceValue, std::string> read;
  };
  const auto takes = [](const std::string& what) { return std::unexpected("it takes " + what); };
  const auto seconds = takes("seconds, or a duration such as 45s, 10m or 1h30m, from 0 to 604800");
  const auto percent = takes("a whole number from 5 to 50");
  for (const auto& [key, text, read] : {
           Row{"masterEnabled", "ON", true},
           Row{"masterEnabled", "no", false},
           Row{"masterEnabled", "maybe", takes("on or off")},
           Row{"batteryFloorPercent", "50", std::int64_t{50}},
           Row{"batteryFloorPercent", "4", percent},
           Row{"batteryFloorPercent", "20.5", percent},
           Row{"releaseDelaySeconds", "90", 90.0},
           Row{"releaseDelaySeconds", "1h30m", 5400.0},
           Row{"releaseDelaySeconds", "nan", seconds},
           Row{"releaseDelaySeconds", "-1", seconds},
           Row{"releaseDelaySeconds", "8d", seconds},
           Row{"pauseUntil", "45m", noon + 45min},
           Row{"pauseUntil", "2027-01-15T09:00:00+01:00", noon},
           Row{"pauseUntil", "none", PreferenceValue{}},
           Row{"pauseUntil", "tomorrow",
               takes("a time such as 2026-01-31T10:00:00Z, a duration such as 45m, or none")},
       }) {
    const auto value = parseSettingText(*findSetting(key), text, noon);
    ASSERT_EQ(value.has_value(), read.has_value()) << key << " " << text;
    if (read) {
      EXPECT_EQ(*value, *read) << key << " " << text;
    } else {
      EXPECT_EQ(value.error(), std::string(key) + " cannot be \"" + text + "\": " + read.error());
    }
  }
}

}  // namespace
}  // namespace vimbrel
