// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <nlohmann/json_fwd.hpp>

#include "Control/ControlServer.h"
#include "Control/ControlledApplication.h"

namespace vimbrel {

/// The published state, as `status` gives it and `subscribe` streams it (docs/control-protocol.md).
[[nodiscard]] nlohmann::json statusDocument(const ControlledApplication& application);

/// "status", "sessions", "version", and the stream of states. The returned token keeps the stream going.
Token addStatusMethods(ControlServer& server, const ControlledApplication& application);

}  // namespace vimbrel
