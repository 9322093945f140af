// SPDX-License-Identifier: Apache-2.0
#include "Domain/WakeDecisionCodec.h"

#include <nlohmann/json.hpp>

#include "Support/StrictJson.h"

namespace vimbrel {

nlohmann::ordered_json toJson(const WakeDecision& decision) {
  if (const auto* hold = decision.asHold()) {
    return {{"hold",
             {{"reason", hold->reason},
              {"activeAgentCount", hold->activeAgentCount},
              {"requiresDeepHold", hold->requiresDeepHold}}}};
  }
  if (const auto* release = decision.asRelease()) return {{"release", {{"reason", release->reason}}}};
  return {{"blocked", {{"block", std::string(rawValue(decision.asBlocked()->block))}}}};
}

std::expected<WakeDecision, DecodeError> wakeDecisionFromJson(const nlohmann::json& json) {
  if (!json.is_object()) return std::unexpected(DecodeError{"decision: not a JSON object"});
  if (json.size() != 1) return std::unexpected(DecodeError{"Invalid number of keys found, expected one."});
  const auto& name = json.begin().key();
  StrictJsonObject payload(json.begin().value(), name);
  auto decision = WakeDecision::release({});
  if (name == "hold") {
    auto reason = payload.string("reason");
    const auto count = payload.integer("activeAgentCount");
    decision = WakeDecision::hold(std::move(reason), count, payload.boolean("requiresDeepHold"));
  } else if (name == "release") {
    decision = WakeDecision::release(payload.string("reason"));
  } else if (name == "blocked") {
    const auto block = safetyBlockFromRawValue(payload.string("block"));
    if (!block) payload.fail("block", "is not a known message");
    decision = WakeDecision::blocked(block.value_or(SafetyBlock::masterDisabled));
  } else {
    return std::unexpected(DecodeError{"decision: \"" + name + "\" is not a known case"});
  }
  if (payload.error()) return std::unexpected(DecodeError{*payload.error()});
  return decision;
}

}  // namespace vimbrel
