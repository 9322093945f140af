// SPDX-License-Identifier: Apache-2.0
#include "Platform/Linux/PowerSupplyReading.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>

#include "Platform/Linux/BusConnection.h"
#include "Platform/Linux/LinuxLidSwitch.h"
#include "Platform/Linux/ThermalZones.h"
#include "Support/VirtualTime.h"
#include "TemporaryDirectory.h"

namespace vimbrel {
namespace {

using Files = std::map<std::string, std::string>;

void write(const std::string& directory, const Files& files) {
  for (const auto& [name, contents] : files) {
    const auto path = std::filesystem::path(directory) / name;
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path) << contents << '\n';
  }
}

TEST(PowerSupplies, becomeOneDescription) {
  struct Case {
    const char* name;
    Files files;
    std::optional<const char*> state;  ///< absent: no description at all
    std::optional<bool> charging;
    double percent;  ///< less than 0: unknown
  };
  const Files mains{{"AC/type", "Mains"}, {"AC/online", "1"}};
  const Files unplugged{{"AC/type", "Mains"}, {"AC/online", "0"}};
  const auto with = [](Files base, const Files& more) {
    base.insert(more.begin(), more.end());
    return base;
  };
  const auto battery = [](const std::string& name, const std::string& status, const std::string& now,
                          const std::string& full) {
    return Files{{name + "/type", "Battery"},
                 {name + "/present", "1"},
                 {name + "/status", status},
                 {name + "/energy_now", now},
                 {name + "/energy_full", full}};
  };
  const std::vector<Case> cases{
      {"a desktop", mains, std::nullopt, {}, -1},
      {"nothing at all", {}, std::nullopt, {}, -1},
      {"on battery", with(unplugged, battery("BAT0", "Discharging", "30000000", "60000000")), "Battery Power",
       false, 50},
      {"charging", with(mains, battery("BAT0", "Charging", "45000000", "60000000")), "AC Power", true, 75},
      {"full on mains", with(mains, battery("BAT0", "Full", "60000000", "60000000")), "AC Power", false, 100},
      {"held below full by firmware", with(mains, battery("BAT0", "Not charging", "48000000", "60000000")),
       "AC Power", false, 80},
      {"two batteries are one store of energy",
       with(with(unplugged, battery("BAT0", "Discharging", "10000000", "20000000")),
            battery("BAT1", "Unknown", "50000000", "60000000")),
       "Battery Power", false, 75},
      {"a mouse is no power source",
       with(mains, {{"hid/type", "Battery"},
                    {"hid/scope", "Device"},
                    {"hid/capacity", "3"},
                    {"hid/status", "Discharging"}}),
       std::nullopt,
       {},
       -1},
      {"only percent is known",
       with(unplugged, {{"BAT0/type", "Battery"}, {"BAT0/status", "Discharging"}, {"BAT0/capacity", "14"}}),
       "Battery Power", false, 14},
      {"no mains device: the battery tells", battery("BAT0", "Charging", "10000000", "20000000"), "AC Power",
       true, 50},
      {"no mains device, discharging", battery("BAT0", "Discharging", "10000000", "20000000"),
       "Battery Power", false, 50},
      {"garbage",
       with(unplugged, {{"BAT0/type", "Battery"},
                        {"BAT0/status", ""},
                        {"BAT0/energy_now", "x"},
                        {"BAT0/energy_full", "-5"},
                        {"BAT0/capacity", "lots"}}),
       "Battery Power", false, -1},
  };
  for (const auto& test : cases) {
    const TemporaryDirectory directory;
    write(directory.path(), test.files);
    const auto combined = combinePowerSupplies(readPowerSupplies(directory.path()));
    ASSERT_EQ(combined.has_value(), test.state.has_value()) << test.name;
    if (!combined) continue;
    EXPECT_EQ(combined->powerSourceState, *test.state) << test.name;
    EXPECT_EQ(combined->isCharging.value_or(false), test.charging.value_or(false)) << test.name;
    if (test.percent < 0) {
      EXPECT_FALSE(combined->currentCapacity) << test.name;
      continue;
    }
    ASSERT_TRUE(combined->currentCapacity) << test.name;
    EXPECT_NEAR(100.0 * static_cast<double>(*combined->currentCapacity) /
                    static_cast<double>(combined->maxCapacity.value_or(100)),
                test.percent, 0.01)
        << test.name;
  }
}

TEST(ThermalZones, goByTheirOwnTripPoints) {
  const TemporaryDirectory directory;
  VirtualTime time(instantFromUnixSeconds(0));
  const auto zone = directory.file("class/thermal/thermal_zone0");
  write(zone, {{"type", "x86_pkg_temp"},
               {"temp", "40000"},
               {"trip_point_0_type", "passive"},
               {"trip_point_0_temp", "90000"},
               {"trip_point_1_type", "critical"},
               {"trip_point_1_temp", "105000"}});
  write(directory.file("class/thermal/thermal_zone1"),
        {{"temp", "99000"}});  // without trip points it says nothing
  ThermalZones zones(time.mainQueue(), directory.path());
  EXPECT_EQ(zones.level(), 0);
  int changes = 0;
  const auto watch = zones.watch([&] { ++changes; });
  write(zone, {{"temp", "106000"}});
  time.advance(std::chrono::seconds{30});
  EXPECT_EQ(zones.level(), 3);
  EXPECT_EQ(changes, 1);
  write(zone, {{"temp", "40000"}});
  time.advance(std::chrono::seconds{30});
  EXPECT_EQ(zones.level(), 0);
  EXPECT_EQ(changes, 2);
  time.advance(std::chrono::seconds{60});
  EXPECT_EQ(changes, 2);
}

TEST(LidSwitch, isReadFromTheKernelAndReported) {
  const TemporaryDirectory directory;
  VirtualTime time(instantFromUnixSeconds(0));
  write(directory.path(), {{"proc/acpi/button/lid/LID0/state", "state:      open"}});
  ::setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + directory.file("no-bus")).c_str(), 1);
  const auto bus = std::make_shared<BusConnection>(BusKind::system, time.mainQueue());
  LinuxLidSwitch lid(time.mainQueue(), bus, directory.file("sys"), directory.file("proc"));
  EXPECT_EQ(lid.isClosed(), false);
  int changes = 0;
  const auto watch = lid.watch([&] { ++changes; });
  write(directory.path(), {{"proc/acpi/button/lid/LID0/state", "state:      closed"}});
  time.advance(std::chrono::seconds{10});
  EXPECT_EQ(changes, 1);
  EXPECT_EQ(lid.isClosed(), true);
  // A machine without a lid says so.
  LinuxLidSwitch none(time.mainQueue(), bus, directory.file("sys"), directory.file("nothing"));
  EXPECT_EQ(none.isClosed(), std::nullopt);
}

}  // namespace
}  // namespace vimbrel
