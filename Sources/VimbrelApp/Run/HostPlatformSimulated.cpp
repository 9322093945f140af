// SPDX-License-Identifier: Apache-2.0
// For an operating system that has no adapters.
#include "Run/HostPlatform.h"

namespace vimbrel {

PlatformServices makeHostPlatform(QueueProvider&, const PlatformServices& standIn) { return standIn; }

std::expected<std::string, std::string> installUserService() {
  return std::unexpected("this operating system has no user services that Vimbrel knows");
}

}  // namespace vimbrel
