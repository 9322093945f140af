// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/UsageProviders/ClaudeLogLine.h"

#include <cstring>

#include "AgentMonitoring/UsageProviders/LenientJson.h"
#include "Support/SaturatingSum.h"
#include "Support/Uuid.h"

namespace vimbrel {
namespace {

constexpr std::string_view defaultModel = "claude-3-5-sonnet";
constexpr std::int64_t defaultContextWindow = 200000;

Instant timeOf(const std::optional<std::string>& text, Instant now, LogTimes times) {
  if (!text) return now;
  if (times == LogTimes::wholeSecondsOnly && text->find_first_of(".,") != std::string::npos) return now;
  return parseIso8601(*text).value_or(now);
}

}  // namespace

struct ClaudeLogParser::State {
  simdjson::dom::parser parser;
};

ClaudeLogParser::ClaudeLogParser() : state_(std::make_unique<State>()) {}
ClaudeLogParser::~ClaudeLogParser() = default;

bool ClaudeLogParser::mayCarryUsage(std::string_view line) {
  constexpr std::string_view key = "\"usage\"";
  return ::memmem(line.data(), line.size(), key.data(), key.size()) != nullptr;
}

ClaudeLogParser::Outcome ClaudeLogParser::parse(std::string_view line, std::uint64_t number,
                                                std::string_view fileName, Instant now, LogTimes times,
                                                const ModelRateCard& card, ClaudeLogRecord& record) {
  lenient::Element root;
  if (state_->parser.parse(line.data(), line.size(), false).get(root) != simdjson::SUCCESS)
    return Outcome::noJson;
  const auto type = lenient::string(root, "type");
  if (type != "assistant" && type != "result") return Outcome::noUsage;
  const auto message = lenient::object(root, "message");
  if (!message) return Outcome::noUsage;
  const auto usage = lenient::object(*message, "usage");
  if (!usage) return Outcome::noUsage;

  UsageEvent event;
  event.agentType = AgentType::claude;
  event.inputTokens = lenient::integer(*usage, "input_tokens");
  event.outputTokens = lenient::integer(*usage, "output_tokens");
  event.cachedTokens = lenient::integer(*usage, "cache_read_input_tokens");
  event.cacheWriteTokens = lenient::integer(*usage, "cache_creation_input_tokens");
  if (const auto details = lenient::object(*usage, "output_tokens_details")) {
    event.reasoningTokens = lenient::integer(*details, "thinking_tokens");
  }
  const auto total =
      saturatingAdd(saturatingAdd(event.inputTokens.value_or(0), event.outputTokens.value_or(0)),
                    saturatingAdd(event.cachedTokens.value_or(0), event.cacheWriteTokens.value_or(0)));
  if (total < 1) return Outcome::noUsage;
  event.totalTokens = total;

  event.sessionId = lenient::string(root, "sessionId").value_or(std::string(fileName));
  event.modelId = lenient::string(*message, "model").value_or(std::string(defaultModel));
  event.turnId = lenient::string(*message, "id");
  if (!event.turnId) event.turnId = lenient::string(root, "uuid");
  if (!event.turnId) event.turnId = event.sessionId + "_turn_" + std::to_string(number);

  BilledTokens billed{.inputTokens = event.inputTokens,
                      .outputTokens = event.outputTokens,
                      .cachedTokens = event.cachedTokens,
                      .reasoningTokens = event.reasoningTokens,
                      .cacheWriteTokens = event.cacheWriteTokens};
  if (const auto writes = lenient::object(*usage, "cache_creation")) {
    const auto oneHour = lenient::integer(*writes, "ephemeral_1h_input_tokens").value_or(0);
    const auto all = event.cacheWriteTokens.value_or(0);
    if (oneHour > 0 && oneHour <= all) {
      billed.oneHourCacheWriteTokens = oneHour;
      billed.cacheWriteTokens = all - oneHour;
    }
  }
  event.costEstimateUSD = card.price(event.modelId, billed);
  const auto* row = card.find(event.modelId);
  event.contextWindow =
      row != nullptr ? row->contextWindow.value_or(defaultContextWindow) : defaultContextWindow;
  event.timestamp = timeOf(lenient::string(root, "timestamp"), now, times);
  event.id = randomUuid();
  event.source = "claude-project-log";

  record.contextWindow = *event.contextWindow;
  record.directory = lenient::string(root, "cwd");
  record.event = std::move(event);
  return Outcome::usage;
}

}  // namespace vimbrel
