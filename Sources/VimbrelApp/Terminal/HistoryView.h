// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "Support/Instant.h"
#include "Terminal/Palette.h"

namespace vimbrel {

/// The result of the control protocol's "history" for people: a line for each day with the time of protection
/// drawn along it, the episodes as a table, and the totals. `width` 0: as wide as it takes.
[[nodiscard]] std::vector<std::string> historyLines(const nlohmann::json& history, std::size_t width,
                                                    const Palette& palette, Instant now);

}  // namespace vimbrel
