// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Platform/Linux/SleepInhibitor.h"

namespace vimbrel {

/// An inhibitor of GNOME's session manager, which MATE and other desktops of that family offer too. It alone
/// stops their automatic suspend; logind's locks do not.
class GnomeSessionInhibitor final : public SleepInhibitor {
 public:
  /// The session manager's own flags.
  enum class Flag : std::uint32_t {
    suspend = 4,  ///< no automatic suspend; the screen may blank
    idle = 8,     ///< the session is never marked idle: the screen stays on
  };
  GnomeSessionInhibitor(Flag flag, std::shared_ptr<BusConnection> sessionBus,
                        std::shared_ptr<TaskQueue> queue);

 private:
  struct Search;

  void take(const std::string& reason, unsigned round) override;
  void readBack(std::function<void(ReadBack)> done) override;
  void giveBack() override;
  bool outlivesService() override;

  const Flag flag_;
  std::optional<std::uint32_t> cookie_;
};

}  // namespace vimbrel
