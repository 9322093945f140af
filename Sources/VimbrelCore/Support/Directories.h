// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace vimbrel {

/// The user's own directories, worked out from the environment at each call. A variable that is unset, empty
/// or not an absolute path counts as absent. Any thread.
namespace directories {

/// `$HOME`, else the password database's entry for the effective user, else "/".
[[nodiscard]] std::string home();
/// `$XDG_DATA_HOME`, else `~/.local/share`: application support.
[[nodiscard]] std::string applicationSupport();
/// `$XDG_CONFIG_HOME`, else `~/.config`.
[[nodiscard]] std::string configuration();
/// `$XDG_STATE_HOME`, else `~/.local/state`: logs.
[[nodiscard]] std::string state();

}  // namespace directories
}  // namespace vimbrel
