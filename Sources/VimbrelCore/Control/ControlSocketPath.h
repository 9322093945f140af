// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace vimbrel {

/// "Vimbrel/run" in the user's application-support directory: the application's sockets and its lock.
[[nodiscard]] std::string runDirectory();

/// "control.sock" in `runDirectory`.
[[nodiscard]] std::string controlSocketPath();

}  // namespace vimbrel
