// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <expected>
#include <string>

#include "Platform/LoginItem.h"

namespace vimbrel {

/// Starts the application at login, in one of two ways and never in both: by an autostart entry, which the
/// desktop carries out, or by a user unit of the service manager, which also works without a desktop.
/// Registering writes the entry, unless a unit is enabled already; unregistering removes both. Queue: one at
/// a time.
class LinuxLoginItem final : public LoginItem {
 public:
  /// `configuration` is $XDG_CONFIG_HOME, else ~/.config; `program` the absolute path of what is started.
  LinuxLoginItem(std::string configuration, std::string program)
      : configuration_(std::move(configuration)), program_(std::move(program)) {}
  /// Of this user and this program.
  [[nodiscard]] static LinuxLoginItem ofUser();

  /// `requiresApproval` when the desktop's own dialogs switched the entry off, `notFound` when what it starts
  /// is no longer there.
  [[nodiscard]] LoginItemStatus status() override;
  [[nodiscard]] std::expected<void, std::string> registerItem() override;
  [[nodiscard]] std::expected<void, std::string> unregisterItem() override;

  /// Writes and enables the user unit in place of an autostart entry. The result is the unit's path.
  [[nodiscard]] std::expected<std::string, std::string> installService();
  [[nodiscard]] bool isServiceEnabled() const;
  /// Whether a desktop would carry out the entry: it is there, and nobody switched it off.
  [[nodiscard]] bool isEntryEnabled() const;
  /// Removes the entry and leaves a unit alone.
  [[nodiscard]] std::expected<void, std::string> removeEntry();
  static constexpr const char* unitName = "com.vimbrel.app.service";

 private:
  [[nodiscard]] LoginItemStatus entryStatus() const;
  [[nodiscard]] std::string entryPath() const;
  [[nodiscard]] std::string unitPath() const;
  [[nodiscard]] std::string wantPath() const;

  const std::string configuration_;
  const std::string program_;
};

}  // namespace vimbrel
