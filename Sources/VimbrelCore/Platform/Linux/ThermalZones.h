// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Platform/ThermalPressure.h"
#include "Support/Fd.h"
#include "Support/Published.h"

namespace vimbrel {

/// From which temperatures on, in thousandths of a degree Celsius, a zone counts as fair, serious, critical.
struct ThermalThresholds {
  std::optional<std::int64_t> fair, serious, critical;
  bool operator==(const ThermalThresholds&) const = default;
};

/// One trip point of the kernel: at this temperature it acts as its type says.
struct TripPoint {
  std::string type;  ///< "active" (fans), "passive" (throttling), "hot", "critical" (power off)
  std::int64_t temperature = 0;
};

/// Fair is where the kernel begins to act. Critical comes 5 °C before it switches the machine off, so that
/// there is time to let go of it; serious is the zone's own "hot" point, or 10 °C before it switches off.
[[nodiscard]] ThermalThresholds thresholdsOf(const std::vector<TripPoint>& trips);

/// The level of a zone at a temperature. A level that was reached is left again only 3 °C below its
/// threshold, so that a temperature that hovers there does not switch protection on and off.
[[nodiscard]] int thermalLevel(const ThermalThresholds& thresholds, std::int64_t temperature, int before);

/// The hottest of the kernel's thermal zones, measured against their own trip points. The kernel announces no
/// changes, so the zones are read every five seconds on the process's shared tick; zones without usable trip
/// points are never read.
class ThermalZones final : public ThermalPressure {
 public:
  /// `sysRoot` is "/sys".
  ThermalZones(std::shared_ptr<TaskQueue> queue, std::string sysRoot);

  [[nodiscard]] int level() override;
  [[nodiscard]] Token watch(std::function<void()> changed) override;
  /// How many zones can be measured.
  [[nodiscard]] std::size_t zoneCount() const;

 private:
  struct Zone {
    Fd temperature;
    ThermalThresholds thresholds;
    int level = 0;
  };

  const std::shared_ptr<TaskQueue> queue_;
  mutable std::mutex lock_;
  std::vector<Zone> zones_;  // guarded by the lock
  int announced_ = 0;
  ChangeSignal changed_;
  Token tick_;
};

}  // namespace vimbrel
