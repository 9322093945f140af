// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <expected>
#include <string>
#include <string_view>
#include <vector>

#include "Domain/ModelRateCard.h"

namespace vimbrel {

/// The user's own prices: {"models": [{"model": "…", "input": 3, "output": 15, "cacheRead": 0.3,
/// "cacheWrite": 3.75, "reasoning": 15, "contextWindow": 200000}, …]}. Prices are US dollars for a million
/// tokens; "input" and "output" are required, cache prices that are missing are the input price, and a
/// missing "reasoning" is the output price.
namespace ratesFile {

/// "com.vimbrel.app/rates.json" under the user's configuration directory.
[[nodiscard]] std::string defaultPath();

/// The rows, in order. The error is a sentence that names the entry; no row is taken then.
[[nodiscard]] std::expected<std::vector<ModelRateCard::Row>, std::string> parse(std::string_view text);

/// The built-in card with the file's rows added. Without a file it is the built-in card; a file that cannot
/// be used gives the error, which names it.
[[nodiscard]] std::expected<ModelRateCard, std::string> load(const std::string& path);

}  // namespace ratesFile
}  // namespace vimbrel
