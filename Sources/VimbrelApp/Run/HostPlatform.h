// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <expected>
#include <memory>
#include <string>

#include "Platform/PlatformServices.h"
#include "Support/TaskQueue.h"

namespace vimbrel {

/// This machine's ports. `standIn` serves what it offers no adapter or no mechanism for; what it then seems
/// to hold is reported as simulated. The queues must outlive the ports. One file for each operating system.
[[nodiscard]] PlatformServices makeHostPlatform(QueueProvider& queues, const PlatformServices& standIn);

/// Has this user's service manager start this program at login, and nothing else do so. The result is the
/// path of what was written; the error is a sentence.
[[nodiscard]] std::expected<std::string, std::string> installUserService();

}  // namespace vimbrel
