// SPDX-License-Identifier: Apache-2.0
#include "Domain/AgentSessionCodec.h"

#include <limits>
#include <nlohmann/json.hpp>

#include "Domain/UsageMetricsCodec.h"

namespace vimbrel {
namespace {

/// Reads an enumeration by its raw value.
template <typename Value>
Value readRaw(StrictJsonObject& object, const char* key,
              std::optional<Value> (*fromRawValue)(std::string_view)) {
  const auto value = fromRawValue(object.string(key));
  if (!value) object.fail(key, "is not a known value");
  return value.value_or(Value{});
}

std::optional<std::int32_t> readPid(StrictJsonObject& object) {
  using Limits = std::numeric_limits<std::int32_t>;
  const auto number = object.optionalInteger("pid");
  if (!number) return std::nullopt;
  if (*number < Limits::min() || *number > Limits::max()) object.fail("pid", "is out of range");
  return static_cast<std::int32_t>(*number);
}

}  // namespace

nlohmann::ordered_json toJson(const AgentSession& session, DateCoding dates) {
  nlohmann::ordered_json object;
  const auto put = [&object](const char* key, const auto& value) {
    if (value) object[key] = *value;
  };
  object["id"] = session.id;
  object["agentType"] = rawValue(session.agentType);
  object["state"] = rawValue(session.state);
  object["startedAt"] = encodeInstant(session.startedAt, dates);
  object["lastEventAt"] = encodeInstant(session.lastEventAt, dates);
  put("pid", session.pid);
  put("cwd", session.cwd);
  put("hostAppName", session.hostAppName);
  put("lastEventDescription", session.lastEventDescription);
  if (session.usageMetrics) object["usageMetrics"] = toJson(*session.usageMetrics, dates);
  object["integrationType"] = rawValue(session.integrationType);
  object["confidence"] = session.confidence;
  return object;
}

std::expected<AgentSession, DecodeError> agentSessionFromJson(const nlohmann::json& value, DateCoding dates) {
  StrictJsonObject object(value, "session");
  AgentSession session;
  session.id = object.string("id");
  session.agentType = readRaw(object, "agentType", agentTypeFromRawValue);
  session.state = readRaw(object, "state", agentStateFromRawValue);
  session.startedAt = readInstant(object, "startedAt", dates);
  session.lastEventAt = readInstant(object, "lastEventAt", dates);
  session.pid = readPid(object);
  session.cwd = object.optionalString("cwd");
  session.hostAppName = object.optionalString("hostAppName");
  session.lastEventDescription = object.optionalString("lastEventDescription");
  if (const auto* metrics = object.member("usageMetrics")) {
    auto decoded = usageMetricsFromJson(*metrics, dates);
    if (!decoded) return std::unexpected(decoded.error());
    session.usageMetrics = *decoded;
  }
  session.integrationType = readRaw(object, "integrationType", integrationTypeFromRawValue);
  session.confidence = object.number("confidence");
  if (object.error()) return std::unexpected(DecodeError{*object.error()});
  return session;
}

}  // namespace vimbrel
