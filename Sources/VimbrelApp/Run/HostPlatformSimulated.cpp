// SPDX-License-Identifier: Apache-2.0
// For an operating system that has no adapters.
#include "Run/HostPlatform.h"

namespace vimbrel {

PlatformServices makeHostPlatform(QueueProvider&, const PlatformServices& standIn) { return standIn; }

}  // namespace vimbrel
