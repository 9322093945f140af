// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <string>

namespace vimbrel {

/// The absolute path of the relay that belongs to this program, for agents' configurations: beside it, in the
/// build tree's place, or on the search path. `program` is what the program was called as (argv[0]).
[[nodiscard]] std::optional<std::string> installedRelay(const std::string& program);
/// The same of the tray.
[[nodiscard]] std::optional<std::string> installedTray(const std::string& program);

}  // namespace vimbrel
