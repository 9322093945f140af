// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace vimbrel {

/// Where the system's helper listens.
inline constexpr const char* systemHelperSocketPath = "/var/run/vimbrel-helper.sock";

/// Where a user's own helper listens.
[[nodiscard]] std::string userHelperSocketPath();

/// What a client uses: the system's helper if a file exists at its path now, else the user's own.
[[nodiscard]] std::string chooseHelperSocketPath();

}  // namespace vimbrel
