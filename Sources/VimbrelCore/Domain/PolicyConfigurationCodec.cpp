// SPDX-License-Identifier: Apache-2.0
#include "Domain/PolicyConfigurationCodec.h"

#include <nlohmann/json.hpp>

#include "Support/StrictJson.h"

namespace vimbrel {

nlohmann::ordered_json toJson(const PolicyConfiguration& configuration) {
  nlohmann::ordered_json json{{"masterEnabled", configuration.masterEnabled},
                              {"manualHoldEnabled", configuration.manualHoldEnabled},
                              {"batteryFloorPercent", configuration.batteryFloorPercent},
                              {"batteryHysteresisPercent", configuration.batteryHysteresisPercent},
                              {"onlyOnAC", configuration.onlyOnAC},
                              {"releaseDebounceSeconds", configuration.releaseDebounceSeconds},
                              {"staleSessionTTLSeconds", configuration.staleSessionTTLSeconds},
                              {"deepLidProtectionEnabled", configuration.deepLidProtectionEnabled}};
  if (configuration.waitingGraceSeconds) json["waitingGraceSeconds"] = *configuration.waitingGraceSeconds;
  if (configuration.maximumHoldSeconds) json["maximumHoldSeconds"] = *configuration.maximumHoldSeconds;
  return json;
}

std::expected<PolicyConfiguration, DecodeError> policyConfigurationFromJson(const nlohmann::json& json) {
  StrictJsonObject object(json, "policy configuration");
  PolicyConfiguration configuration;
  configuration.masterEnabled = object.boolean("masterEnabled");
  configuration.manualHoldEnabled = object.boolean("manualHoldEnabled");
  configuration.batteryFloorPercent = object.integer("batteryFloorPercent");
  configuration.batteryHysteresisPercent = object.integer("batteryHysteresisPercent");
  configuration.onlyOnAC = object.boolean("onlyOnAC");
  configuration.releaseDebounceSeconds = object.number("releaseDebounceSeconds");
  configuration.staleSessionTTLSeconds = object.number("staleSessionTTLSeconds");
  configuration.deepLidProtectionEnabled = object.boolean("deepLidProtectionEnabled");
  configuration.waitingGraceSeconds = object.optionalNumber("waitingGraceSeconds");
  configuration.maximumHoldSeconds = object.optionalNumber("maximumHoldSeconds");
  if (object.error()) return std::unexpected(DecodeError{*object.error()});
  return configuration;
}

}  // namespace vimbrel
