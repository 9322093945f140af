// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <expected>
#include <nlohmann/json_fwd.hpp>

#include "Domain/AgentSession.h"
#include "Domain/DateCoding.h"
#include "Domain/DecodeError.h"

namespace vimbrel {

/// Keys are the field names, in their order; absent fields are left out. Dates are written as the enclosing
/// document writes them.
[[nodiscard]] nlohmann::ordered_json toJson(const AgentSession& session, DateCoding dates);
/// Strict: a missing key, a value of another type, an unknown enumeration text or a pid beyond 32 bits fails;
/// unknown keys are ignored.
[[nodiscard]] std::expected<AgentSession, DecodeError> agentSessionFromJson(const nlohmann::json& value,
                                                                            DateCoding dates);

}  // namespace vimbrel
