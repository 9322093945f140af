// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "Support/Subprocess.h"

namespace vimbrel {

/// The relay's file name, by which configurations that call it are known.
inline constexpr std::string_view relayProgramName = "vimbrel-relay";

/// The first executable file called `name` in the directories of `searchPath` (as in $PATH; empty parts are
/// dropped); absent when there is none or no search path.
[[nodiscard]] std::optional<std::string> findExecutable(const std::optional<std::string>& searchPath,
                                                        std::string_view name);

[[nodiscard]] bool isExecutableFile(const std::string& path);
[[nodiscard]] bool pathExists(const std::string& path);

/// What the executable prints for "--version", trimmed: within these bounds, without a terminal, killed with
/// everything it started when it meets one. Absent when it fails, prints no UTF-8, or meets a bound.
[[nodiscard]] std::optional<std::string> probeVersion(const std::string& executable,
                                                      const SubprocessBounds& bounds);

/// The file's text when it is valid UTF-8 of a size that a configuration has (up to 16 MiB); absent
/// otherwise.
[[nodiscard]] std::optional<std::string> readConfiguration(const std::string& path);

/// True when the configuration's text names the relay, wherever in it.
[[nodiscard]] bool namesRelay(const std::string& path);

}  // namespace vimbrel
