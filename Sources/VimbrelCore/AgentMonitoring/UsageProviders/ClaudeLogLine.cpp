// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/UsageProviders/ClaudeLogLine.h"

#include "AgentMonitoring/UsageProviders/LenientJson.h"
#include "Support/ByteSearch.h"
#include "Support/SaturatingSum.h"
#include "Support/Uuid.h"

namespace vimbrel {
namespace {

constexpr std::string_view defaultModel = "claude-3-5-sonnet";
constexpr std::int64_t defaultContextWindow = 200000;
/// How the message begins that Claude Code writes when the user presses Escape.
constexpr std::string_view interruptionText = "[Request interrupted by user";

Instant timeOf(std::optional<std::string_view> text, Instant now, LogTimes times) {
  if (!text) return now;
  if (times == LogTimes::wholeSecondsOnly && text->find_first_of(".,") != std::string_view::npos) return now;
  return parseIso8601(*text).value_or(now);
}

}  // namespace

struct ClaudeLogParser::State {
  explicit State(const ModelRateCard& rateCard) : card(rateCard) {}

  simdjson::dom::parser parser;
  std::string numberedTurn;  ///< of a line that names no message
  const ModelRateCard& card;
  std::string latestModel;  ///< one conversation stays with one model for long
  const ModelRateCard::Row* latestRow = nullptr;
};

ClaudeLogParser::ClaudeLogParser(const ModelRateCard& card) : state_(std::make_unique<State>(card)) {}
ClaudeLogParser::~ClaudeLogParser() = default;

bool ClaudeLogParser::mayCarryUsage(std::string_view line) {
  // Without the opening quote, which is the most frequent byte of a log.
  return occursIn(line, "usage\"");
}

std::optional<TurnInterruption> ClaudeLogParser::interruption(std::string_view line) {
  if (!occursIn(line, interruptionText)) return std::nullopt;
  lenient::Element root;
  if (state_->parser.parse(line.data(), line.size(), false).get(root) != simdjson::SUCCESS)
    return std::nullopt;
  const auto message = lenient::object(root, "message");
  if (lenient::text(root, "type") != "user" || !message) return std::nullopt;
  // The whole text of the message, or of its first part: somebody may well write about it.
  auto text = lenient::text(*message, "content");
  simdjson::dom::array parts;
  if (const auto content = lenient::member(*message, "content");
      content && content->get(parts) == simdjson::SUCCESS && parts.begin() != parts.end()) {
    text = lenient::text(*parts.begin(), "text");
  }
  const auto at = parseIso8601(lenient::text(root, "timestamp").value_or(""));
  if (!at || !text || !text->starts_with(interruptionText)) return std::nullopt;
  return TurnInterruption{AgentType::claude, lenient::string(root, "sessionId"), lenient::string(root, "cwd"),
                          *at};
}

ClaudeLogParser::Outcome ClaudeLogParser::parse(std::string_view line, std::uint64_t number,
                                                std::string_view fileName, Instant now, LogTimes times,
                                                ClaudeLogRecord& record) {
  lenient::Element root;
  if (state_->parser.parse(line.data(), line.size(), false).get(root) != simdjson::SUCCESS)
    return Outcome::noJson;
  const auto type = lenient::text(root, "type");
  if (type != "assistant" && type != "result") return Outcome::noUsage;
  const auto message = lenient::object(root, "message");
  if (!message) return Outcome::noUsage;
  const auto usage = lenient::object(*message, "usage");
  if (!usage) return Outcome::noUsage;

  record = {};
  auto& event = record.event;
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

  event.sessionId = lenient::text(root, "sessionId").value_or(fileName);
  event.modelId = lenient::text(*message, "model").value_or(defaultModel);
  event.turnId = lenient::text(*message, "id");
  if (!event.turnId) event.turnId = lenient::text(root, "uuid");
  if (!event.turnId) {
    state_->numberedTurn = std::string(event.sessionId) + "_turn_" + std::to_string(number);
    event.turnId = state_->numberedTurn;
  }
  event.timestamp = timeOf(lenient::text(root, "timestamp"), now, times);
  event.source = "claude-project-log";

  record.billed = {.inputTokens = event.inputTokens,
                   .outputTokens = event.outputTokens,
                   .cachedTokens = event.cachedTokens,
                   .reasoningTokens = event.reasoningTokens,
                   .cacheWriteTokens = event.cacheWriteTokens};
  if (const auto writes = lenient::object(*usage, "cache_creation")) {
    const auto oneHour = lenient::integer(*writes, "ephemeral_1h_input_tokens").value_or(0);
    const auto all = event.cacheWriteTokens.value_or(0);
    if (oneHour > 0 && oneHour <= all) {
      record.billed.oneHourCacheWriteTokens = oneHour;
      record.billed.cacheWriteTokens = all - oneHour;
    }
  }
  record.directory = lenient::text(root, "cwd");
  return Outcome::usage;
}

UsageEvent ClaudeLogParser::eventOf(const ClaudeLogRecord& record) {
  auto& state = *state_;
  if (const auto model = *record.event.modelId; model != state.latestModel) {
    state.latestModel = model;
    state.latestRow = state.card.find(model);
  }
  auto event = record.event.toEvent();
  event.id = randomUuid();
  event.contextWindow = defaultContextWindow;
  if (state.latestRow != nullptr) {
    event.costEstimateUSD = state.latestRow->price(record.billed);
    event.contextWindow = state.latestRow->contextWindow.value_or(defaultContextWindow);
  }
  return event;
}

}  // namespace vimbrel
