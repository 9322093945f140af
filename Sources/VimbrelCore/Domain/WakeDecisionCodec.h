// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <expected>
#include <nlohmann/json_fwd.hpp>

#include "Domain/DecodeError.h"
#include "Domain/WakeDecision.h"

namespace vimbrel {

/// {"hold":{"reason":"…","activeAgentCount":2,"requiresDeepHold":false}}, {"release":{"reason":"…"}} or
/// {"blocked":{"block":"Protection paused"}}.
[[nodiscard]] nlohmann::ordered_json toJson(const WakeDecision& decision);
[[nodiscard]] std::expected<WakeDecision, DecodeError> wakeDecisionFromJson(const nlohmann::json& json);

}  // namespace vimbrel
