// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "Platform/Linux/BusConnection.h"
#include "Platform/PlatformServices.h"

namespace vimbrel {

/// Adds what this process's desktop offers: notifications, sounds, the login item and the global shortcut.
void addDesktopServices(PlatformServices& services, const std::shared_ptr<TaskQueue>& mainQueue,
                        const std::shared_ptr<BusConnection>& sessionBus);

/// How each of them stands, for `doctor`.
[[nodiscard]] std::vector<DoctorFinding> examineDesktop(const PlatformServices& services);

/// "Debian GNU/Linux 12 (bookworm), Linux 6.1.0 x86_64".
[[nodiscard]] std::string describeLinux();

/// What systemd-inhibit(1) lists; empty where it cannot be run. Any thread; blocks for up to three seconds.
[[nodiscard]] std::string listLinuxAssertions();

}  // namespace vimbrel
