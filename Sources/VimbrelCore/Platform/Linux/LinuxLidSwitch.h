// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "Platform/LidSwitch.h"
#include "Platform/Linux/BusConnection.h"
#include "Support/Published.h"

namespace vimbrel {

/// The lid as the first of these tells it: the kernel's ACPI button, read every two seconds on the shared
/// tick; logind's LidClosed, which announces no changes and is asked every five seconds. Neither is looked at
/// on a machine without a lid switch. Queue: the main queue.
class LinuxLidSwitch final : public LidSwitch {
 public:
  /// `sysRoot` is "/sys" and `procRoot` "/proc".
  LinuxLidSwitch(std::shared_ptr<TaskQueue> queue, std::shared_ptr<BusConnection> systemBus,
                 const std::string& sysRoot, const std::string& procRoot);

  /// The first call waits up to 200 ms for logind where only it can tell.
  [[nodiscard]] std::optional<bool> isClosed() override;
  [[nodiscard]] Token watch(std::function<void()> changed) override;
  [[nodiscard]] bool hasLid() const { return hasLid_; }

 private:
  /// What logind told last. Shared with the answers that are on their way.
  struct Logind {
    std::optional<bool> closed;
    bool answered = false;
    std::function<void()> told;  ///< set once somebody watches
  };

  [[nodiscard]] std::optional<bool> readFile() const;
  void askLogind();
  void compare();

  const std::shared_ptr<TaskQueue> queue_;
  const std::shared_ptr<BusConnection> systemBus_;
  std::string stateFile_;  // empty: the kernel has no such file
  bool hasLid_ = false;
  std::shared_ptr<Logind> logind_ = std::make_shared<Logind>();
  std::optional<bool> announced_;
  ChangeSignal changed_;
  Token tick_;
};

}  // namespace vimbrel
