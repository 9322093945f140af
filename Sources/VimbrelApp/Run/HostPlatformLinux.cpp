// SPDX-License-Identifier: Apache-2.0
#include "Platform/Linux/LinuxLoginItem.h"
#include "Platform/Linux/LinuxPlatform.h"
#include "Run/FallbackAssertions.h"
#include "Run/HostPlatform.h"

namespace vimbrel {

PlatformServices makeHostPlatform(QueueProvider& queues, const PlatformServices& standIn) {
  auto platform = makeLinuxPlatform(queues);
  platform.assertions = std::make_shared<FallbackAssertions>(platform.assertions, standIn.assertions);
  return platform;
}

std::expected<std::string, std::string> installUserService() {
  return LinuxLoginItem::ofUser().installService();
}

}  // namespace vimbrel
