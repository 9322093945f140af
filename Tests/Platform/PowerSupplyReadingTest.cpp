// SPDX-License-Identifier: Apache-2.0
#include "Platform/Linux/PowerSupplyReading.h"

#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <map>

#include "Platform/Linux/BusConnection.h"
#include "Platform/Linux/LinuxLidSwitch.h"
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

/// A battery with so many of sixty watt-hours.
Files battery(const std::string& name, const std::string& status, int wattHours) {
  return {{name + "/type", "Battery"},
          {name + "/present", "1"},
          {name + "/status", status},
          {name + "/energy_now", std::to_string(wattHours) + "000000"},
          {name + "/energy_full", "60000000"}};
}

TEST(PowerSupplies, becomeOneDescription) {
  const Files none;
  const Files mains{{"AC/type", "Mains"}, {"AC/online", "1"}};
  const Files unplugged{{"AC/type", "Mains"}, {"AC/online", "0"}};
  const Files mouse{
      {"hid/type", "Battery"}, {"hid/scope", "Device"}, {"hid/capacity", "3"}, {"hid/status", "Discharging"}};
  const Files percentAlone{{"BAT0/type", "Battery"}, {"BAT0/status", "Discharging"}, {"BAT0/capacity", "14"}};
  const Files garbage{{"BAT0/type", "Battery"},
                      {"BAT0/status", ""},
                      {"BAT0/energy_now", "x"},
                      {"BAT0/energy_full", "-5"},
                      {"BAT0/capacity", "lots"}};
  const struct {
    std::string name;
    std::vector<Files> supplies;
    std::string description;
  } cases[] = {
      {"a desktop", {mains}, "none"},
      {"nothing at all", {none}, "none"},
      {"on battery", {unplugged, battery("BAT0", "Discharging", 30)}, "Battery Power 50 %"},
      {"charging", {mains, battery("BAT0", "Charging", 45)}, "AC Power 75 % charging"},
      {"full on mains", {mains, battery("BAT0", "Full", 60)}, "AC Power 100 %"},
      {"held below full by firmware", {mains, battery("BAT0", "Not charging", 48)}, "AC Power 80 %"},
      {"two batteries are one store of energy",
       {unplugged, battery("BAT0", "Discharging", 12), battery("BAT1", "Unknown", 60)},
       "Battery Power 60 %"},
      {"a mouse is no power source", {mains, mouse}, "none"},
      {"only percent is known", {unplugged, percentAlone}, "Battery Power 14 %"},
      {"no mains device: the battery tells", {battery("BAT0", "Charging", 30)}, "AC Power 50 % charging"},
      {"no mains device, discharging", {battery("BAT0", "Discharging", 30)}, "Battery Power 50 %"},
      {"garbage", {unplugged, garbage}, "Battery Power"},
  };
  for (const auto& [name, supplies, description] : cases) {
    const TemporaryDirectory directory;
    for (const auto& files : supplies) write(directory.path(), files);
    const auto combined = combinePowerSupplies(readPowerSupplies(directory.path()));
    std::string read = combined ? combined->powerSourceState.value_or("unknown") : "none";
    if (combined && combined->currentCapacity) {
      const auto whole = static_cast<double>(combined->maxCapacity.value_or(100));
      read += " " +
              std::to_string(std::lround(100.0 * static_cast<double>(*combined->currentCapacity) / whole)) +
              " %";
    }
    if (combined && combined->isCharging.value_or(false)) read += " charging";
    EXPECT_EQ(read, description) << name;
  }
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
