// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>

#include "Support/Instant.h"

namespace vimbrel {

/// Where time comes from. Nothing else in the program reads a clock. Queue: any.
class Clock {
 public:
  virtual ~Clock() = default;
  /// Wall-clock time; it can jump either way.
  [[nodiscard]] virtual Instant now() const = 0;
  /// Time since an arbitrary start; it never goes back and stands still while the machine is suspended.
  [[nodiscard]] virtual std::chrono::nanoseconds monotonic() const = 0;
};

/// The machine's clocks.
class SystemClock final : public Clock {
 public:
  [[nodiscard]] Instant now() const override {
    return std::chrono::time_point_cast<Seconds>(std::chrono::system_clock::now());
  }
  [[nodiscard]] std::chrono::nanoseconds monotonic() const override {
    return std::chrono::steady_clock::now().time_since_epoch();
  }
};

}  // namespace vimbrel
