// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string_view>

#include "Support/Instant.h"
#include "Support/StrictJson.h"

namespace vimbrel {

/// How a document writes its instants; every record inside it follows.
enum class DateCoding {
  referenceSeconds,  ///< a number: seconds since 2001-01-01 00:00:00 UTC (the usage store)
  iso8601,           ///< text: "2026-01-31T10:00:00Z" (exports)
};

[[nodiscard]] nlohmann::json encodeInstant(Instant instant, DateCoding dates);
/// Reads a member of a record strictly; errors go to the reader.
[[nodiscard]] Instant readInstant(StrictJsonObject& object, std::string_view key, DateCoding dates);
[[nodiscard]] std::optional<Instant> readOptionalInstant(StrictJsonObject& object, std::string_view key,
                                                         DateCoding dates);

}  // namespace vimbrel
