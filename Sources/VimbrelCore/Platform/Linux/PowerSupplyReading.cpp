// SPDX-License-Identifier: Apache-2.0
#include "Platform/Linux/PowerSupplyReading.h"

#include <algorithm>
#include <cmath>
#include <filesystem>

#include "Platform/Linux/SmallFile.h"

namespace vimbrel {
namespace {

PowerSupply readSupply(const std::string& directory) {
  const auto number = [&](const char* name) { return readSmallNumber(directory + "/" + name); };
  const auto text = [&](const char* name) { return readSmallFile(directory + "/" + name).value_or(""); };
  PowerSupply supply;
  supply.type = text("type");
  supply.scope = text("scope");
  supply.status = text("status");
  supply.present = number("present");
  supply.online = number("online");
  supply.capacity = number("capacity");
  supply.energyNow = number("energy_now");
  supply.energyFull = number("energy_full");
  supply.powerNow = number("power_now");
  supply.chargeNow = number("charge_now");
  supply.chargeFull = number("charge_full");
  supply.currentNow = number("current_now");
  supply.voltageNow = number("voltage_now");
  return supply;
}

bool drivesTheMachine(const PowerSupply& supply) {
  return supply.type == "Battery" && supply.scope != "Device" && supply.present.value_or(1) != 0;
}

/// Some drivers report a discharging battery's power as a negative number.
double magnitude(std::int64_t value) { return std::abs(static_cast<double>(value)); }

/// Energy in Wh now and when full, and power in W.
struct Energy {
  double now = 0;
  double full = 0;
  double power = 0;
};

/// Absent when the driver gives neither energies nor charges.
std::optional<Energy> energyOf(const PowerSupply& supply) {
  constexpr double micro = 1e-6;
  if (supply.energyNow && supply.energyFull.value_or(0) > 0) {
    return Energy{magnitude(*supply.energyNow) * micro, magnitude(*supply.energyFull) * micro,
                  magnitude(supply.powerNow.value_or(0)) * micro};
  }
  if (supply.chargeNow && supply.chargeFull.value_or(0) > 0) {
    // The voltage weighs batteries against one another; 1 V serves as well when there is only one.
    const double volts = supply.voltageNow.value_or(0) > 0 ? magnitude(*supply.voltageNow) * micro : 1;
    return Energy{magnitude(*supply.chargeNow) * micro * volts, magnitude(*supply.chargeFull) * micro * volts,
                  magnitude(supply.currentNow.value_or(0)) * micro * volts};
  }
  return std::nullopt;
}

}  // namespace

std::vector<PowerSupply> readPowerSupplies(const std::string& directory) {
  std::vector<std::string> paths;
  std::error_code error;  // A machine without this directory has no supplies.
  for (std::filesystem::directory_iterator entry(directory, error), end; !error && entry != end;
       entry.increment(error)) {
    paths.push_back(entry->path().string());
  }
  std::ranges::sort(paths);
  std::vector<PowerSupply> supplies;
  for (const auto& path : paths) supplies.push_back(readSupply(path));
  return supplies;
}

std::optional<PowerSourceDescription> combinePowerSupplies(const std::vector<PowerSupply>& all) {
  bool anyMains = false;
  bool mainsOnline = false;
  for (const auto& supply : all) {
    if ((supply.type != "Mains" && supply.type != "USB") || supply.scope == "Device") continue;
    // A USB port that is not plugged in says nothing about how the machine is fed; a mains adapter does.
    if (supply.type == "Mains" && supply.online) anyMains = true;
    mainsOnline = mainsOnline || supply.online.value_or(0) > 0;  // 1 fixed, 2 programmable
  }

  int batteries = 0;
  bool charging = false;
  bool discharging = false;
  Energy total;
  int withEnergy = 0;
  int withCapacity = 0;
  std::int64_t capacities = 0;
  for (const auto& battery : all) {
    if (!drivesTheMachine(battery)) continue;
    ++batteries;
    charging = charging || battery.status == "Charging";
    discharging = discharging || battery.status == "Discharging";
    if (const auto energy = energyOf(battery)) {
      ++withEnergy;
      total.now += energy->now;
      total.full += energy->full;
      if (battery.status == "Discharging") total.power += energy->power;
    }
    if (battery.capacity) {
      ++withCapacity;
      capacities += std::clamp<std::int64_t>(*battery.capacity, 0, 100);
    }
  }
  if (batteries == 0) return std::nullopt;

  PowerSourceDescription source;
  const bool onAC = mainsOnline || (!anyMains && !discharging);
  source.powerSourceState = onAC ? "AC Power" : "Battery Power";
  source.isCharging = charging && !(discharging && !mainsOnline);
  if (batteries == 1 && withCapacity == 1) {
    // The kernel's own figure is what every other program on the desktop shows.
    source.currentCapacity = capacities;
    source.maxCapacity = 100;
  } else if (withEnergy == batteries) {
    // A worn battery may report more than its last full charge.
    source.currentCapacity = std::llround(std::min(total.now, total.full) * 1000);
    source.maxCapacity = std::llround(total.full * 1000);
  } else if (withCapacity > 0) {
    source.currentCapacity = capacities;
    source.maxCapacity = 100 * withCapacity;
  }
  constexpr double leastWatts = 0.1;  // Below it a figure means "not measured yet", not days of battery.
  if (!onAC && withEnergy == batteries && total.power >= leastWatts) {
    source.timeToEmptyMinutes = std::llround(total.now / total.power * 60);
  }
  return source;
}

}  // namespace vimbrel
