// SPDX-License-Identifier: Apache-2.0
#include "Platform/Linux/ThermalZones.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <utility>

#include "Platform/Linux/SmallFile.h"

namespace vimbrel {

using namespace std::chrono_literals;

namespace {

constexpr std::int64_t degree = 1000;
// Firmware writes 0, -273 °C or absurdly much where it means "none".
constexpr std::int64_t lowestTrip = 20 * degree;
constexpr std::int64_t highestTrip = 200 * degree;
constexpr int mostTrips = 32;

void lower(std::optional<std::int64_t>& threshold, std::int64_t temperature) {
  threshold = threshold ? std::min(*threshold, temperature) : temperature;
}

std::vector<TripPoint> readTrips(const std::string& zone) {
  std::vector<TripPoint> trips;
  for (int i = 0; i < mostTrips; ++i) {
    const auto prefix = zone + "/trip_point_" + std::to_string(i);
    const auto type = readSmallFile(prefix + "_type");
    if (!type) break;
    if (const auto temperature = readSmallNumber(prefix + "_temp")) trips.push_back({*type, *temperature});
  }
  return trips;
}

std::optional<std::int64_t> readAgain(int descriptor) {
  char text[32];
  const auto length = ::pread(descriptor, text, sizeof text, 0);
  if (length <= 0) return std::nullopt;
  std::int64_t value = 0;
  const auto [end, error] = std::from_chars(text, text + length, value);
  return error == std::errc{} ? std::optional(value) : std::nullopt;
}

}  // namespace

ThermalThresholds thresholdsOf(const std::vector<TripPoint>& trips) {
  ThermalThresholds thresholds;
  std::optional<std::int64_t> powerOff;
  for (const auto& [type, temperature] : trips) {
    if (temperature < lowestTrip || temperature > highestTrip) continue;
    if (type == "critical") lower(powerOff, temperature);
    if (type == "hot") lower(thresholds.serious, temperature);
    if (type == "passive" || type == "active") lower(thresholds.fair, temperature);
  }
  if (powerOff) {
    thresholds.critical = *powerOff - 5 * degree;
    if (!thresholds.serious) thresholds.serious = *powerOff - 10 * degree;
  }
  return thresholds;
}

int thermalLevel(const ThermalThresholds& thresholds, std::int64_t temperature, int before) {
  constexpr std::int64_t hysteresis = 3 * degree;
  const auto reached = [&](const std::optional<std::int64_t>& threshold, int level) {
    return threshold && temperature >= *threshold - (before >= level ? hysteresis : 0);
  };
  if (reached(thresholds.critical, 3)) return 3;
  if (reached(thresholds.serious, 2)) return 2;
  return reached(thresholds.fair, 1) ? 1 : 0;
}

ThermalZones::ThermalZones(std::shared_ptr<TaskQueue> queue, std::string sysRoot) : queue_(std::move(queue)) {
  std::error_code error;  // A machine without this directory has no zones.
  for (std::filesystem::directory_iterator entry(sysRoot + "/class/thermal", error), end;
       !error && entry != end; entry.increment(error)) {
    if (!entry->path().filename().string().starts_with("thermal_zone")) continue;
    const auto thresholds = thresholdsOf(readTrips(entry->path().string()));
    if (thresholds == ThermalThresholds{}) continue;
    Fd temperature(::open((entry->path() / "temp").c_str(), O_RDONLY | O_CLOEXEC));
    if (temperature) zones_.push_back({std::move(temperature), thresholds});
  }
}

std::size_t ThermalZones::zoneCount() const { return zones_.size(); }

int ThermalZones::level() {
  const std::lock_guard guard(lock_);
  int hottest = 0;
  for (auto& zone : zones_) {
    // A zone that cannot be read just now, as that of a device that sleeps, is not hot.
    const auto temperature = readAgain(zone.temperature.get());
    zone.level = temperature ? thermalLevel(zone.thresholds, *temperature, zone.level) : 0;
    hottest = std::max(hottest, zone.level);
  }
  return hottest;
}

Token ThermalZones::watch(std::function<void()> changed) {
  if (!tick_ && !zones_.empty()) {
    announced_ = level();
    tick_ = queue_->every(5s, 5s, TimerPrecision::shared, [this] {
      const int now = level();
      if (std::exchange(announced_, now) != now) changed_.send();
    });
  }
  return changed_.subscribe(std::move(changed));
}

}  // namespace vimbrel
