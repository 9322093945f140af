// SPDX-License-Identifier: Apache-2.0
// Any bytes as a Claude Code log: the same events come out however the log arrives, and each can be stored.
#include <cmath>
#include <cstdint>

#include "AgentMonitoring/UsageProviders/ClaudeLogLine.h"
#include "LogPieces.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace vimbrel;
  const std::string_view log(reinterpret_cast<const char*>(data), size);
  const auto now = instantFromUnixSeconds(1'700'000'000);
  ClaudeLogParser parser(ModelRateCard::builtIn());
  const auto take = [&](const JsonLinesReader::Line& line, std::vector<std::string>& events) {
    ClaudeLogRecord record;
    const auto outcome = parser.parse(line.text, line.number, "file", now, LogTimes::all, record);
    if (outcome == ClaudeLogParser::Outcome::usage) {
      const auto event = parser.eventOf(record);
      if (event.totalTokens.value_or(0) < 1 || event.deduplicationKey().empty()) std::abort();
      if (event.costEstimateUSD && !std::isfinite(*event.costEstimateUSD)) std::abort();
      const auto stored = describe(event);
      if (!usageStoreFormat::readJournalLine(std::string_view(stored).substr(0, stored.size() - 1)))
        std::abort();
      events.push_back(stored);
    }
    return outcome != ClaudeLogParser::Outcome::noJson;
  };
  const auto atOnce = readGrowing(log, size + 1, take);
  const auto growing = readGrowing(log, 1 + size / 5, take);
  if (growing && growing != atOnce) std::abort();
  return 0;
}
