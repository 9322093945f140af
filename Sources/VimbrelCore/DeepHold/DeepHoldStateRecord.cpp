// SPDX-License-Identifier: Apache-2.0
#include "DeepHold/DeepHoldStateRecord.h"

#include <nlohmann/json.hpp>

#include "Support/StrictJson.h"

namespace vimbrel {

using nlohmann::json;

std::string encode(const DeepHoldStateRecord& record) {
  json value{{"isHolding", record.isHolding}, {"originalSleepDisabled", record.originalSleepDisabled}};
  if (record.activeLeaseId) value["activeLeaseId"] = *record.activeLeaseId;
  if (record.expiresAt) value["expiresAt"] = referenceSeconds(*record.expiresAt);
  return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

std::expected<DeepHoldStateRecord, DecodeError> decodeDeepHoldStateRecord(std::string_view text) {
  const auto value = parseJson(text);
  if (!value) return std::unexpected(DecodeError{"state: not valid JSON"});
  StrictJsonObject object(*value, "state");
  DeepHoldStateRecord record;
  record.isHolding = object.boolean("isHolding");
  record.activeLeaseId = object.optionalString("activeLeaseId");
  if (const auto date = object.optionalNumber("expiresAt")) {
    record.expiresAt = instantFromReferenceSeconds(*date);
  }
  record.originalSleepDisabled = object.boolean("originalSleepDisabled");
  if (object.error()) return std::unexpected(DecodeError{*object.error()});
  return record;
}

}  // namespace vimbrel
