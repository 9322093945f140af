// SPDX-License-Identifier: Apache-2.0
// Any bytes as the data of one message in OpenCode's database.
#include <cmath>
#include <cstdint>
#include <cstdlib>

#include "AgentMonitoring/UsageProviders/OpenCodeDatabase.h"
#include "LogPieces.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace vimbrel;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const auto now = instantFromUnixSeconds(1'700'000'000);
  OpenCodeMessageParser parser(ModelRateCard::builtIn());
  for (const std::int64_t created :
       {std::int64_t{0}, std::int64_t{1'700'000'000'123}, INT64_MAX, INT64_MIN}) {
    const OpenCodeRow row{"message", "session", created, text};
    const auto usage = parser.parse(row, now);
    const auto again = parser.parse(row, now);
    if (usage.has_value() != again.has_value()) std::abort();
    if (!usage) continue;
    if (describe(usage->event) != describe(again->event)) std::abort();
    if (usage->event.totalTokens.value_or(0) < 1 || usage->contextWindow < 1) std::abort();
    if (usage->event.costEstimateUSD && !std::isfinite(*usage->event.costEstimateUSD)) std::abort();
    if (created < 1 && usage->event.timestamp != now) std::abort();
    const auto line = describe(usage->event);
    if (!usageStoreFormat::readJournalLine(std::string_view(line).substr(0, line.size() - 1))) std::abort();
  }
  return 0;
}
