// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <string>

#include "Simulation/SimulatedApplication.h"

namespace vimbrel {

/// Works out from scratch what a running application, at a quiet moment, should have published: settings from
/// their file, power, heat and lid from the machine, rows and mood from the sessions, and the decision from
/// all of these. A sentence when what is published differs.
[[nodiscard]] std::optional<std::string> differenceFromScratch(SimulatedApplication& application);

}  // namespace vimbrel
