// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace vimbrel {

/// The system-wide setting that keeps the machine from sleeping, closed lid included. Whoever turns it on
/// must turn it off again: a closed laptop that cannot sleep overheats.
/// Queue: any one at a time; may block its caller for the time the platform takes.
class SystemPowerControlling {
 public:
  virtual ~SystemPowerControlling() = default;
  /// Whether sleep is disabled now.
  [[nodiscard]] virtual bool readSleepDisabled() = 0;
  /// Disables or enables sleep; true when that succeeded. A failure has been logged.
  virtual bool writeSleepDisabled(bool disabled) = 0;
};

}  // namespace vimbrel
