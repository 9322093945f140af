// SPDX-License-Identifier: Apache-2.0
// Any bytes as a Codex rollout, alone and as its own parent: the same events come out however it arrives, and
// a rollout that repeats its parent to the last record adds nothing of its own.
#include <cmath>
#include <cstdint>

#include "AgentMonitoring/UsageProviders/CodexRollout.h"
#include "LogPieces.h"

namespace {

using namespace vimbrel;

TakeLine takerFor(CodexRolloutParser& parser, CodexRolloutState& state, CodexReading& reading,
                  const CodexRolloutParser::ParentLookup& parents) {
  return [&](const JsonLinesReader::Line& line, std::vector<std::string>& events) {
    const auto now = instantFromUnixSeconds(1'700'000'000);
    return parser.take(line, "session", now, LogTimes::all, state, reading, parents, [&](UsageEvent event) {
      if (event.deduplicationKey().empty()) std::abort();
      if (event.costEstimateUSD && !std::isfinite(*event.costEstimateUSD)) std::abort();
      if (event.quotaRemainingPercent && !std::isfinite(*event.quotaRemainingPercent)) std::abort();
      events.push_back(describe(std::move(event)));
    });
  };
}

std::optional<std::vector<std::string>> read(std::string_view log, std::size_t step,
                                             const CodexRolloutParser::ParentLookup& parents) {
  CodexRolloutParser parser(ModelRateCard::builtIn());
  CodexRolloutState state;
  auto reading = CodexRolloutParser::freshReading();
  return readGrowing(log, step, takerFor(parser, state, reading, parents));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view log(reinterpret_cast<const char*>(data), size);
  const auto orphan = [](const std::string&) { return nullptr; };
  const auto atOnce = read(log, size + 1, orphan);
  const auto growing = read(log, 1 + size / 5, orphan);
  if (growing && growing != atOnce) std::abort();

  CodexRolloutParser parser(ModelRateCard::builtIn());
  const auto records = std::make_shared<std::vector<CodexFingerprint>>();
  readGrowing(log, size + 1, [&](const JsonLinesReader::Line& line, std::vector<std::string>&) {
    if (auto record = parser.fingerprint(line.text)) records->push_back(*record);
    return true;
  });
  const std::string child =
      R"({"type":"session_meta","timestamp":"2026-01-01T00:00:00Z","payload":{"id":"child","forked_from_id":"p"}})"
      "\n" +
      std::string(log);
  const auto replayed = read(child, child.size(), [&](const std::string&) { return records; });
  if (replayed && !replayed->empty()) std::abort();
  return 0;
}
