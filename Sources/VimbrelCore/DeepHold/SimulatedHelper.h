// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "DeepHold/HelperExchange.h"
#include "Support/Clock.h"

namespace vimbrel {

/// A helper inside this process that keeps the sleep setting in memory: it follows every rule of leases and
/// touches nothing of the machine. `clock` must outlive what is returned.
[[nodiscard]] HelperExchange simulatedHelper(const Clock& clock);

}  // namespace vimbrel
