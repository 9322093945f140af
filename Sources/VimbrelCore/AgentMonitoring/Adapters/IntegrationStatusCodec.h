// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <expected>
#include <nlohmann/json_fwd.hpp>

#include "AgentMonitoring/Adapters/AgentAdapter.h"
#include "Domain/DecodeError.h"

namespace vimbrel {

/// Keys are the field names, in their order; absent fields are left out.
[[nodiscard]] nlohmann::ordered_json toJson(const IntegrationStatus& status);
/// Strict: a missing key, a value of another type or an unknown integration type fails; unknown keys are
/// ignored.
[[nodiscard]] std::expected<IntegrationStatus, DecodeError> integrationStatusFromJson(
    const nlohmann::json& value);

}  // namespace vimbrel
