// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Platform/Linux/BusConnection.h"
#include "Platform/SleepAssertions.h"
#include "Support/Log.h"
#include "Support/TaskQueue.h"

namespace vimbrel {

class SleepInhibitor;

/// Sleep assertions of a Linux desktop or server. One assertion is held by every mechanism that works here:
///
/// | against        | gnome-session | power-management | screensaver | logind `idle` |
/// | system sleep   | suspend       | yes              |             | yes, not on KDE |
/// | display sleep  | idle          |                  | yes         | yes           |
///
/// On KDE logind's lock would keep the screen on although only system sleep is to be prevented, so there the
/// power manager alone holds the system assertion. All handles of a type share what is held for it, so that
/// nothing is listed twice. A mechanism that appears later, or comes back, takes part from then on.
/// Queue: the main queue. `create` waits up to 500 ms for the services; nothing else waits.
class LinuxSleepAssertions final : public SleepAssertions {
 public:
  /// `currentDesktop` is the value of XDG_CURRENT_DESKTOP.
  LinuxSleepAssertions(std::shared_ptr<TaskQueue> queue, std::shared_ptr<BusConnection> systemBus,
                       std::shared_ptr<BusConnection> sessionBus, const std::string& currentDesktop);
  ~LinuxSleepAssertions() override;

  [[nodiscard]] std::expected<AssertionHandle, AssertionError> create(AssertionType type,
                                                                      std::string_view name) override;
  void release(AssertionHandle handle) override;
  [[nodiscard]] std::vector<MechanismStatus> mechanisms() const override;
  [[nodiscard]] bool isSimulated() const override { return false; }

  [[nodiscard]] bool isKde() const;
  /// Waits, up to 500 ms, until it is known which services are there.
  void waitUntilKnown();

 private:
  struct Handle {
    AssertionType type;
    std::string name;
  };
  /// An inhibitor and the assertions that it serves.
  struct Part {
    std::shared_ptr<SleepInhibitor> inhibitor;
    bool system;
    bool display;
  };

  [[nodiscard]] bool serves(const Part& part, AssertionType type) const;
  [[nodiscard]] bool isSettled(AssertionType type) const;
  [[nodiscard]] bool isHeld(AssertionType type) const;
  [[nodiscard]] AssertionError errorFor(AssertionType type) const;
  void applyWishes();
  void inhibitorChanged();
  void announceChanges();

  const std::shared_ptr<TaskQueue> queue_;
  const std::shared_ptr<BusConnection> systemBus_;
  const std::shared_ptr<BusConnection> sessionBus_;
  const bool desktopIsKde_;
  const Logger logger_{"power"};
  std::vector<Part> parts_;
  std::shared_ptr<SleepInhibitor> powerManagement_;
  std::map<AssertionHandle, Handle> handles_;
  AssertionHandle lastHandle_ = 0;
  std::vector<MechanismStatus> announced_;
  Token kdeWatch_;
  std::shared_ptr<bool> announcing_ = std::make_shared<bool>(false);  // an announcement is on its way
};

}  // namespace vimbrel
