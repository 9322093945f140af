// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vimbrel {

/// What a `.desktop` file says about an application, as far as it helps to recognise its processes.
struct DesktopEntry {
  std::string id;  ///< the file's name without ".desktop"; sub-directories joined by dashes
  std::string localizedName;
  std::vector<std::string> command;  ///< `Exec`, split into arguments, field codes left out
  std::string startupWindowClass;
  bool isHidden = false;  ///< stands for "not installed"
  bool operator==(const DesktopEntry&) const = default;
};

/// The longest file that is read; longer ones are no desktop entries.
inline constexpr std::size_t maximumDesktopEntryBytes = 262144;

/// Reads the text of a desktop entry. `locale` is a POSIX locale name ("de_AT.UTF-8@euro") and picks the
/// name. Absent for what is no application with a window: other types, programs for a terminal, files without
/// a readable name or command. The id is left empty. Pure; any bytes are fine.
[[nodiscard]] std::optional<DesktopEntry> parseDesktopEntry(std::string_view text, std::string_view locale);

}  // namespace vimbrel
