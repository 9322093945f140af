// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <expected>
#include <string>
#include <string_view>

#include "Support/Instant.h"

namespace vimbrel {

/// Reads a duration as people type it: "90", "90s", "45m", "1.5h", "1h30m", "2d"; a number without a unit is
/// seconds. Not negative, at most 100 years. The error is a sentence that gives examples.
[[nodiscard]] std::expected<Seconds, std::string> parseDuration(std::string_view text);

/// "45 s", "3 min", "1 h 5 min", "2 d 3 h": two units at most, rounded down.
[[nodiscard]] std::string formatDuration(Seconds duration);

}  // namespace vimbrel
