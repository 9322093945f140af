// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Platform/Linux/SleepInhibitor.h"

namespace vimbrel {

/// org.freedesktop.ScreenSaver: the screen neither blanks nor locks. Implementations differ in the path of
/// their object, so both that are in use are tried.
class ScreenSaverInhibitor final : public SleepInhibitor {
 public:
  ScreenSaverInhibitor(std::shared_ptr<BusConnection> sessionBus, std::shared_ptr<TaskQueue> queue);

 private:
  void take(const std::string& reason, unsigned round) override;
  void readBack(std::function<void(ReadBack)> done) override;
  void giveBack() override;
  bool outlivesService() override;
  void takeAt(std::size_t pathIndex, const std::string& reason, unsigned round);

  std::size_t path_ = 0;                 // where it was taken
  std::optional<std::uint32_t> cookie_;  // 0 is a cookie like any other
};

}  // namespace vimbrel
