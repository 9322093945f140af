// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/Adapters/IntegrationStatusCodec.h"

#include <nlohmann/json.hpp>

#include "Support/StrictJson.h"

namespace vimbrel {

nlohmann::ordered_json toJson(const IntegrationStatus& status) {
  nlohmann::ordered_json object;
  object["isInstalled"] = status.isInstalled;
  if (status.agentVersion) object["agentVersion"] = *status.agentVersion;
  object["integrationType"] = rawValue(status.integrationType);
  object["isIntegrationActive"] = status.isIntegrationActive;
  if (status.backupPath) object["backupPath"] = *status.backupPath;
  object["statusMessage"] = status.statusMessage;
  return object;
}

std::expected<IntegrationStatus, DecodeError> integrationStatusFromJson(const nlohmann::json& value) {
  StrictJsonObject object(value, "integration status");
  IntegrationStatus status;
  status.isInstalled = object.boolean("isInstalled");
  status.agentVersion = object.optionalString("agentVersion");
  const auto type = integrationTypeFromRawValue(object.string("integrationType"));
  if (!type) object.fail("integrationType", "is not a known value");
  status.integrationType = type.value_or(IntegrationType::process);
  status.isIntegrationActive = object.boolean("isIntegrationActive");
  status.backupPath = object.optionalString("backupPath");
  status.statusMessage = object.string("statusMessage");
  if (object.error()) return std::unexpected(DecodeError{*object.error()});
  return status;
}

}  // namespace vimbrel
