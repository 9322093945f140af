// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "Support/Clock.h"
#include "Support/TaskQueue.h"

namespace vimbrel {

/// Virtual time: a clock that stands still until it is told to move, and queues whose tasks and timers all
/// run on the caller's thread in an order that depends on nothing but the calls made. Hours run in
/// milliseconds.
class VirtualTime final : public QueueProvider, public Clock {
 public:
  explicit VirtualTime(Instant start);
  ~VirtualTime() override;
  VirtualTime(const VirtualTime&) = delete;
  VirtualTime& operator=(const VirtualTime&) = delete;

  [[nodiscard]] Instant now() const override;
  [[nodiscard]] std::chrono::nanoseconds monotonic() const override;
  [[nodiscard]] std::shared_ptr<TaskQueue> mainQueue() override;
  [[nodiscard]] std::shared_ptr<TaskQueue> makeQueue(std::string label, QueueHome home) override;

  /// Runs every posted task, and what those post, without moving the clock.
  void runReady();
  /// Moves the clock forward by `duration`, running tasks and timers at their times.
  void advance(std::chrono::nanoseconds duration);
  /// Runs the single next task or timer that is due no later than `limit` from the start; false when there is
  /// none. For checks after every step.
  bool step(std::chrono::nanoseconds limit);
  /// Shifts the wall clock alone, as a clock adjustment or a suspended machine does.
  void jumpWallClock(Seconds by);
  /// How many tasks and timers wait for their time.
  [[nodiscard]] std::size_t scheduledCount() const;

  struct State;

 private:
  std::shared_ptr<State> state_;
};

}  // namespace vimbrel
