// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Platform/Linux/SleepInhibitor.h"

namespace vimbrel {

/// org.freedesktop.PowerManagement.Inhibit, which KDE's, XFCE's and MATE's power managers offer: no automatic
/// suspend. The screen may go off (XFCE keeps it on nevertheless).
class PowerManagementInhibitor final : public SleepInhibitor {
 public:
  PowerManagementInhibitor(std::shared_ptr<BusConnection> sessionBus, std::shared_ptr<TaskQueue> queue);

 private:
  void take(const std::string& reason, unsigned round) override;
  void readBack(std::function<void(ReadBack)> done) override;
  void giveBack() override;
  bool outlivesService() override;
  // KDE counts an inhibition only when it has lasted five seconds.
  [[nodiscard]] std::chrono::seconds listingDelay() const override { return std::chrono::seconds{6}; }

  std::optional<std::uint32_t> cookie_;
};

}  // namespace vimbrel
