// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <nlohmann/json_fwd.hpp>

#include "Control/ControlServer.h"
#include "Control/ControlledApplication.h"

namespace vimbrel {

/// The published state, as `status` gives it and `subscribe` streams it (docs/control-protocol.md).
[[nodiscard]] nlohmann::json statusDocument(const ControlledApplication& application);
/// What a line about the state needs of it ("statusDescription", "isHolding", "assertions"), with the first
/// sessions only and their whole number as "sessionCount": as cheap with ten thousand sessions as with ten.
/// On the main queue.
[[nodiscard]] nlohmann::json summaryDocument(const ControlledApplication& application,
                                             std::size_t maximumSessions);

/// "status", "sessions", "version", and the stream of states. The returned token keeps the stream going.
Token addStatusMethods(ControlServer& server, const ControlledApplication& application);

}  // namespace vimbrel
