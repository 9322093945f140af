// SPDX-License-Identifier: Apache-2.0
#include "Domain/DateCoding.h"

#include <nlohmann/json.hpp>

namespace vimbrel {

nlohmann::json encodeInstant(Instant instant, DateCoding dates) {
  if (dates == DateCoding::iso8601) return formatIso8601(instant);
  return referenceSeconds(instant);
}

std::optional<Instant> readOptionalInstant(StrictJsonObject& object, std::string_view key, DateCoding dates) {
  if (dates == DateCoding::referenceSeconds) {
    const auto seconds = object.optionalNumber(key);
    return seconds ? std::optional(instantFromReferenceSeconds(*seconds)) : std::nullopt;
  }
  const auto text = object.optionalString(key);
  if (!text) return std::nullopt;
  const auto instant = parseIso8601(*text);
  if (!instant) object.fail(key, "is not an ISO 8601 date");
  return instant;
}

Instant readInstant(StrictJsonObject& object, std::string_view key, DateCoding dates) {
  const auto instant = readOptionalInstant(object, key, dates);
  if (!instant) object.fail(key, "is missing");
  return instant.value_or(Instant{});
}

}  // namespace vimbrel
