// SPDX-License-Identifier: Apache-2.0
#include "Domain/PowerSourceSnapshotCodec.h"

#include <nlohmann/json.hpp>

#include "Support/StrictJson.h"

namespace vimbrel {

nlohmann::ordered_json toJson(const PowerSourceSnapshot& snapshot) {
  nlohmann::ordered_json json;
  if (snapshot.batteryPercent) json["batteryPercent"] = *snapshot.batteryPercent;
  json["isCharging"] = snapshot.isCharging;
  json["isOnAC"] = snapshot.isOnAC;
  json["isLowPowerMode"] = snapshot.isLowPowerMode;
  if (snapshot.timeRemainingMinutes) json["timeRemainingMinutes"] = *snapshot.timeRemainingMinutes;
  return json;
}

std::expected<PowerSourceSnapshot, DecodeError> powerSourceSnapshotFromJson(const nlohmann::json& json) {
  StrictJsonObject object(json, "power source");
  PowerSourceSnapshot snapshot;
  snapshot.batteryPercent = object.optionalInteger("batteryPercent");
  snapshot.isCharging = object.boolean("isCharging");
  snapshot.isOnAC = object.boolean("isOnAC");
  snapshot.isLowPowerMode = object.boolean("isLowPowerMode");
  snapshot.timeRemainingMinutes = object.optionalInteger("timeRemainingMinutes");
  if (object.error()) return std::unexpected(DecodeError{*object.error()});
  return snapshot;
}

}  // namespace vimbrel
