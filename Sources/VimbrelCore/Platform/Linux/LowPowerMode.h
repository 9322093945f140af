// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Platform/Linux/BusConnection.h"

namespace vimbrel {

/// Whether the user chose to save power: the profile "power-saver" of power-profiles-daemon, which has had
/// two bus names, else the firmware's profile "low-power".
class LowPowerMode {
 public:
  /// `changed` is called on the main queue when the daemon's profile changes. `sysRoot` is "/sys".
  LowPowerMode(std::shared_ptr<TaskQueue> queue, std::shared_ptr<BusConnection> systemBus,
               std::string sysRoot, std::function<void()> changed);

  /// Any thread.
  [[nodiscard]] bool isEnabled() const;

 private:
  enum class Answer { none, normal, saving };
  struct State {
    std::atomic<Answer> answers[2] = {Answer::none, Answer::none};  // one for each bus name
    std::function<void()> changed;
  };

  const std::string profileFile_;
  const std::shared_ptr<State> state_ = std::make_shared<State>();
  std::vector<Token> subscriptions_;
};

}  // namespace vimbrel
