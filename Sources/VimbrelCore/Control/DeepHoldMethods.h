// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <nlohmann/json_fwd.hpp>

#include "Control/ControlServer.h"
#include "Control/ControlledApplication.h"

namespace vimbrel {

/// How the closed lid stands: "cover", "coveredBy", "until", "explanation", "remedy", "helper"
/// (docs/control-protocol.md).
[[nodiscard]] nlohmann::json closedLidDocument(const ControlledApplication& application);

/// The helper's own account, with ISO 8601 dates, or null: "helperStatus".
[[nodiscard]] nlohmann::json helperDocument(const ControlledApplication& application);

/// The programs that run under a hold of their own: "command", "until", "coversLid" of each.
[[nodiscard]] nlohmann::json commandHoldsDocument(const ControlledApplication& application);

/// For an application that has both: "holdWhile", which holds for as long as the connection lives. The
/// returned token keeps subscribers told of the helper's changes.
Token addDeepHoldMethods(ControlServer& server, const ControlledApplication& application);

}  // namespace vimbrel
