// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <expected>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>

#include "DeepHold/DeepHoldProtocol.h"
#include "Domain/DateCoding.h"
#include "Domain/DecodeError.h"

namespace vimbrel {

/// The records of the helper's socket as compact JSON objects. Absent fields are left out; dates are numbers
/// of seconds since 2001-01-01 00:00:00 UTC. Reading is strict: a missing required key, a value of another
/// type or a text that is not UTF-8 is an error; unknown keys are ignored. Any thread; nothing throws.
[[nodiscard]] std::string encode(const HelperRequest& request);
[[nodiscard]] std::string encode(const HelperResponse& response);
[[nodiscard]] std::expected<HelperRequest, DecodeError> decodeHelperRequest(std::string_view text);
[[nodiscard]] std::expected<HelperResponse, DecodeError> decodeHelperResponse(std::string_view text);

/// For documents that contain the status; dates as the enclosing document writes them.
[[nodiscard]] nlohmann::json toJson(const DeepSleepStatus& status,
                                    DateCoding dates = DateCoding::referenceSeconds);
[[nodiscard]] std::expected<DeepSleepStatus, DecodeError> deepSleepStatusFromJson(
    const nlohmann::json& value, DateCoding dates = DateCoding::referenceSeconds);

}  // namespace vimbrel
