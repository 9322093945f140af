// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "DeepHold/DeepSleepControlling.h"
#include "DeepHold/HelperExchange.h"
#include "Support/TaskQueue.h"

namespace vimbrel {

/// The client of the helper. It keeps one lease id from the first acquire until the release, so that repeated
/// acquires are renewals, and renews the lease by itself every quarter of its lifetime (at least 5 seconds
/// apart) in case acquires stop coming. A missing or silent helper fails quietly: false, or a synthetic
/// status.
class DeepSleepController final : public DeepSleepControlling {
 public:
  /// Without a path, the system's helper if its socket exists now, else the user's own; the choice is kept.
  /// An empty `exchange` means the socket.
  DeepSleepController(QueueProvider& queues, std::optional<std::string> socketPath,
                      HelperExchange exchange = nullptr);
  /// Stops the renewals and sends nothing: the lease runs out.
  ~DeepSleepController() override;
  DeepSleepController(const DeepSleepController&) = delete;
  DeepSleepController& operator=(const DeepSleepController&) = delete;

  void status(std::move_only_function<void(DeepSleepStatus)> done) override;
  void acquire(double ttlSeconds, std::move_only_function<void(bool)> done) override;
  void release(std::move_only_function<void()> done) override;
  void letLapse() override;
  [[nodiscard]] std::string lastRefusal() const override;
  [[nodiscard]] std::optional<std::string> leaseId() const override;

  [[nodiscard]] const std::string& socketPath() const;

  /// Waits until everything that was asked for is done, but not longer than `limit`: before a program ends,
  /// so that its release reaches the helper. Not on a queue of virtual time, and not on the controller's own.
  void drain(std::chrono::milliseconds limit);

 private:
  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace vimbrel
