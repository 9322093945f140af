// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Platform/Linux/SleepInhibitor.h"
#include "Support/Fd.h"

namespace vimbrel {

/// logind's `idle` lock in block mode. The lock is a descriptor: closing it, or dying, gives it back. It
/// stops logind's own IdleAction and the idle daemons of wlroots desktops, and on KDE it keeps the screen on
/// too.
class LogindInhibitor final : public SleepInhibitor {
 public:
  LogindInhibitor(std::shared_ptr<BusConnection> systemBus, std::shared_ptr<TaskQueue> queue);

 private:
  void take(const std::string& reason, unsigned round) override;
  void readBack(std::function<void(ReadBack)> done) override;
  void giveBack() override;
  // A restarted logind finds its locks again in /run/systemd/inhibit.
  bool outlivesService() override { return true; }

  Fd lock_;
};

}  // namespace vimbrel
