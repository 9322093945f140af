// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <expected>
#include <string>
#include <vector>

namespace vimbrel {

// What `vimbrel setup` finds out about this operating system and does to it. One file for each operating
// system. Errors are sentences. Each call blocks for as long as the service manager takes, at most half a
// minute.

/// What starts Vimbrel at login.
struct LoginStart {
  enum class Way {
    none,
    desktop,  ///< the desktop, by an autostart entry
    service,  ///< the user's service manager, by a unit
  };
  Way way = Way::none;
  bool hasBoth = false;        ///< there is an entry besides the unit
  bool canUseService = false;  ///< the user's service manager answers
  bool canUseDesktop = false;  ///< this is a session of a desktop
  bool isPackaged = false;     ///< the unit came with the installation; otherwise it is one of our own
  std::string unit;            ///< the unit that is, or would be, enabled
};

[[nodiscard]] LoginStart examineLoginStart();
/// Enables the unit, removes an entry, and starts the unit if wanted.
[[nodiscard]] std::expected<void, std::string> startByService(const LoginStart& found, bool startsNow);
/// Writes the entry.
[[nodiscard]] std::expected<void, std::string> startByDesktop();
/// Removes the entry that stands beside a unit.
[[nodiscard]] std::expected<void, std::string> removeDesktopEntry();
/// Starts the unit, or starts it again so that it sees what changed.
[[nodiscard]] std::expected<void, std::string> restartService(const std::string& unit);
/// Whether the unit runs now.
[[nodiscard]] bool isServiceActive(const std::string& unit);

/// Starts a program that goes on after this one and the terminal have ended; `program` is an absolute path.
[[nodiscard]] std::expected<void, std::string> startInBackground(const std::string& program,
                                                                 const std::vector<std::string>& arguments);
/// This program's own file.
[[nodiscard]] std::string ownProgram();

/// Whether the tray runs in this session.
[[nodiscard]] bool isTrayRunning();
/// Whether this desktop starts the tray at login.
[[nodiscard]] bool isTrayStartedAtLogin();

}  // namespace vimbrel
