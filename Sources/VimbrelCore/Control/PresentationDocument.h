// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <nlohmann/json_fwd.hpp>

#include "Control/ControlledApplication.h"

namespace vimbrel {

/// The part of the published state that surfaces draw: "agentFamilies", "visualState", "budgets",
/// "lowBudgetAlerts" and "helperStatus" (docs/control-protocol.md).
[[nodiscard]] nlohmann::json presentationDocument(const ControlledApplication& application);

}  // namespace vimbrel
