// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <expected>
#include <nlohmann/json_fwd.hpp>

#include "Domain/DecodeError.h"
#include "Domain/PolicyConfiguration.h"

namespace vimbrel {

/// An object with the field names as keys; all of them are required.
[[nodiscard]] nlohmann::ordered_json toJson(const PolicyConfiguration& configuration);
[[nodiscard]] std::expected<PolicyConfiguration, DecodeError> policyConfigurationFromJson(
    const nlohmann::json& json);

}  // namespace vimbrel
