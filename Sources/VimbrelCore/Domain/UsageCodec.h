// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <expected>
#include <nlohmann/json_fwd.hpp>

#include "Domain/DateCoding.h"
#include "Domain/DecodeError.h"
#include "Domain/SessionUsageRecord.h"
#include "Domain/UsageEvent.h"
#include "Domain/UsageSummary.h"

namespace vimbrel {

/// The usage records as JSON objects: keys are the field names, absent fields are left out, decoding is
/// strict. (The usage store writes and reads its own file without them: it holds too many events.)

[[nodiscard]] nlohmann::json toJson(const UsageEvent& event, DateCoding dates);
[[nodiscard]] nlohmann::json toJson(const SessionUsageRecord& record, DateCoding dates);
[[nodiscard]] nlohmann::json toJson(const AgentUsageSummary& summary);
[[nodiscard]] nlohmann::json toJson(const UsageSummary& summary);

[[nodiscard]] std::expected<UsageEvent, DecodeError> usageEventFromJson(const nlohmann::json& value,
                                                                        DateCoding dates);
[[nodiscard]] std::expected<SessionUsageRecord, DecodeError> sessionUsageRecordFromJson(
    const nlohmann::json& value, DateCoding dates);
[[nodiscard]] std::expected<AgentUsageSummary, DecodeError> agentUsageSummaryFromJson(
    const nlohmann::json& value);
[[nodiscard]] std::expected<UsageSummary, DecodeError> usageSummaryFromJson(const nlohmann::json& value);

}  // namespace vimbrel
