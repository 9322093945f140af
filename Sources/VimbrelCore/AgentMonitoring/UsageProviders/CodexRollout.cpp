// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/UsageProviders/CodexRollout.h"

#include <algorithm>

#include "AgentMonitoring/UsageProviders/LenientJson.h"
#include "Support/SaturatingSum.h"
#include "Support/Uuid.h"

namespace vimbrel {
namespace {

constexpr std::string_view defaultModel = "gpt-5.6-terra";
constexpr std::int64_t defaultContextWindow = 258400;
// The limit of the account itself; records with another id are other products' limits.
constexpr std::string_view accountLimit = "codex";
// A fork writes its parent's records again within its first moments, before any model could have answered.
constexpr Seconds replayBurst{1.0};

CodexCounts countsOf(const lenient::Element& usage) {
  return {lenient::integer(usage, "input_tokens"), lenient::integer(usage, "cached_input_tokens"),
          lenient::integer(usage, "output_tokens"), lenient::integer(usage, "reasoning_output_tokens"),
          lenient::integer(usage, "total_tokens")};
}

/// Looks at the top level first and then inside the payload.
std::optional<lenient::Element> outerObject(const lenient::Element& root,
                                            const std::optional<lenient::Element>& payload,
                                            std::string_view key) {
  if (const auto found = lenient::object(root, key)) return found;
  return payload ? lenient::object(*payload, key) : std::nullopt;
}

std::optional<AccountQuotaBudget> quotaOf(const lenient::Element& limits, Instant writtenAt) {
  const auto id = lenient::string(limits, "limit_id");
  if (id && *id != accountLimit) return std::nullopt;
  const auto primary = lenient::object(limits, "primary");
  if (!primary) return std::nullopt;
  const auto used = lenient::number(*primary, "used_percent");
  if (!used) return std::nullopt;
  AccountQuotaBudget quota;
  quota.percentageRemaining = 100 - *used;
  quota.usedPercent = used;
  quota.windowMinutes = lenient::integer(*primary, "window_minutes");
  if (const auto resetsAt = lenient::number(*primary, "resets_at")) {
    quota.resetsAt = instantFromUnixSeconds(*resetsAt);
  } else if (const auto resetsIn = lenient::number(*primary, "resets_in_seconds")) {
    quota.resetsAt = writtenAt + Seconds{*resetsIn};
  }
  quota.planType = lenient::string(limits, "plan_type");
  if (!quota.planType) quota.planType = lenient::string(*primary, "plan_type");
  return AccountQuotaBudget::create(std::move(quota));
}

std::optional<CodexFingerprint> fingerprintOf(const lenient::Element& info) {
  const auto cumulative = lenient::object(info, "total_token_usage");
  const auto latest = lenient::object(info, "last_token_usage");
  if (!cumulative && !latest) return std::nullopt;
  return CodexFingerprint{cumulative ? countsOf(*cumulative) : CodexCounts{},
                          latest ? countsOf(*latest) : CodexCounts{}};
}

void takeSessionRecord(const lenient::Element& payload, std::optional<Instant> writtenAt,
                       CodexRolloutState& state, const CodexRolloutParser::ParentLookup& parents) {
  const auto id = lenient::string(payload, "id");
  std::optional<std::string> parent;
  if (!state.metaSeen) {
    state.metaSeen = true;
    state.ownId = id;
    state.createdAt = writtenAt;
    state.directory = lenient::string(payload, "cwd");
    parent = lenient::string(payload, "forked_from_id");
    if (!parent) parent = lenient::string(payload, "parent_thread_id");
  } else if (id && id != state.ownId) {
    // The session record of another rollout, repeated: whatever is repeated with it belongs to that one.
    parent = id;
  }
  if (!parent || state.parentRecords || state.lastCumulative) return;
  state.inReplay = true;
  if (parents) state.parentRecords = parents(*parent);
}

/// True while the rollout repeats its parent's records; the first record that differs ends that for good.
bool belongsToParent(const CodexFingerprint& record, std::optional<Instant> writtenAt,
                     CodexRolloutState& state) {
  if (!state.inReplay) return false;
  if (state.parentRecords) {
    // The parent's unchanged repetitions may be left out of the replay, so the match may skip ahead.
    const auto& records = *state.parentRecords;
    const auto from = records.begin() + static_cast<std::ptrdiff_t>(state.replayIndex);
    const auto found = std::find(from, records.end(), record);
    if (found != records.end()) {
      state.replayIndex = static_cast<std::size_t>(found - records.begin()) + 1;
      return true;
    }
  } else if (writtenAt && state.createdAt && *writtenAt <= *state.createdAt + replayBurst) {
    return true;
  }
  state.inReplay = false;
  return false;
}

}  // namespace

std::int64_t CodexCounts::figure() const {
  return total ? *total : saturatingAdd(input.value_or(0), output.value_or(0));
}

struct CodexRolloutParser::Json {
  simdjson::dom::parser parser;
};

CodexRolloutParser::CodexRolloutParser(const ModelRateCard& card)
    : card_(card), json_(std::make_unique<Json>()) {}
CodexRolloutParser::~CodexRolloutParser() = default;

CodexReading CodexRolloutParser::freshReading() { return {std::string(defaultModel), {}, {}, {}, {}, {}}; }

std::optional<CodexFingerprint> CodexRolloutParser::fingerprint(std::string_view line) {
  lenient::Element root;
  if (json_->parser.parse(line.data(), line.size(), false).get(root) != simdjson::SUCCESS)
    return std::nullopt;
  const auto info = outerObject(root, lenient::object(root, "payload"), "info");
  return info ? fingerprintOf(*info) : std::nullopt;
}

bool CodexRolloutParser::take(const JsonLinesReader::Line& line, const std::string& sessionId, Instant now,
                              LogTimes times, CodexRolloutState& state, CodexReading& reading,
                              const ParentLookup& parents, const std::function<void(UsageEvent)>& onEvent) {
  lenient::Element root;
  if (json_->parser.parse(line.text.data(), line.text.size(), false).get(root) != simdjson::SUCCESS)
    return false;
  if (!root.is_object()) return true;
  const auto payload = lenient::object(root, "payload");
  const auto writtenAt = parseIso8601(lenient::string(root, "timestamp").value_or(""));

  if (payload && lenient::string(root, "type") == "session_meta") {
    takeSessionRecord(*payload, writtenAt, state, parents);
    return true;
  }
  if (payload && lenient::text(root, "type") == "event_msg") {
    const auto what = lenient::text(*payload, "type");
    if (what == "turn_aborted") reading.abortedAt = writtenAt;
    if (what == "task_started" || what == "turn_started") reading.abortedAt.reset();
  }
  auto model = payload ? lenient::string(*payload, "model") : std::nullopt;
  if (!model) model = lenient::string(root, "model");
  if (model && !model->empty()) reading.model = *model;

  if (const auto limits = outerObject(root, payload, "rate_limits")) {
    if (auto quota = quotaOf(*limits, writtenAt.value_or(now))) reading.quota = std::move(quota);
  }
  const auto info = outerObject(root, payload, "info");
  if (!info) return true;
  const auto record = fingerprintOf(*info);
  if (!record) return true;

  const auto* row = card_.find(reading.model);
  const auto window = lenient::integer(*info, "model_context_window")
                          .value_or(row != nullptr ? row->contextWindow.value_or(defaultContextWindow)
                                                   : defaultContextWindow);
  const auto cumulative = lenient::object(*info, "total_token_usage");
  const auto latest = lenient::object(*info, "last_token_usage");
  reading.contextWindow = window;
  if (latest) reading.context = ContextBudget::create(window, record->latest.figure());
  reading.cumulative = cumulative ? record->cumulative : record->latest;

  if (belongsToParent(*record, writtenAt, state)) {
    if (cumulative) state.lastCumulative = record->cumulative;
    return true;
  }
  const bool moved = !cumulative || state.lastCumulative != record->cumulative;
  if (cumulative) state.lastCumulative = record->cumulative;
  if (!latest || !moved) return true;

  UsageEvent event;
  event.id = randomUuid();
  event.agentType = AgentType::codex;
  event.sessionId = sessionId;
  auto ordinal = lenient::integer(root, "ordinal");
  if (!ordinal && payload) ordinal = lenient::integer(*payload, "ordinal");
  event.turnId = ordinal ? "turn_" + std::to_string(*ordinal) : "turn_idx_" + std::to_string(line.number);
  event.modelId = reading.model;
  event.inputTokens = record->latest.input;
  event.outputTokens = record->latest.output;
  event.cachedTokens = record->latest.cached;
  event.reasoningTokens = record->latest.reasoning;
  if (record->latest.total) {
    event.totalTokens = record->latest.total;
  } else if (record->latest.figure() > 0) {
    event.totalTokens = record->latest.figure();
  }
  event.contextWindow = window;
  event.costEstimateUSD =
      card_.price(reading.model,
                  BilledTokens::fromNestedCounts(event.inputTokens, event.outputTokens, event.cachedTokens));
  if (reading.quota) event.quotaRemainingPercent = reading.quota->percentageRemaining;
  event.timestamp = times == LogTimes::all ? writtenAt.value_or(now) : now;
  event.source = "codex-session-rollout";
  onEvent(UsageEvent::make(std::move(event)));
  return true;
}

}  // namespace vimbrel
