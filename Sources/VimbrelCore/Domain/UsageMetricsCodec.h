// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <expected>
#include <nlohmann/json_fwd.hpp>

#include "Domain/DateCoding.h"
#include "Domain/DecodeError.h"
#include "Domain/UsageMetrics.h"

namespace vimbrel {

/// Keys are the field names, in their order; absent fields are left out.
[[nodiscard]] nlohmann::ordered_json toJson(const UsageMetrics& metrics, DateCoding dates);
/// Strict: a missing "recordedAt" or a value of another type fails; unknown keys are ignored.
[[nodiscard]] std::expected<UsageMetrics, DecodeError> usageMetricsFromJson(const nlohmann::json& value,
                                                                            DateCoding dates);

}  // namespace vimbrel
