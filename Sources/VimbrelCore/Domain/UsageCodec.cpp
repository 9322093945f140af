// SPDX-License-Identifier: Apache-2.0
#include "Domain/UsageCodec.h"

#include <nlohmann/json.hpp>

#include "Support/StrictJson.h"

namespace vimbrel {
namespace {

template <typename T>
void put(nlohmann::json& object, const char* key, const std::optional<T>& value) {
  if (value) object[key] = *value;
}

AgentType readAgentType(StrictJsonObject& object) {
  const auto agent = agentTypeFromRawValue(object.string("agentType"));
  if (!agent) object.fail("agentType", "is not a known agent");
  return agent.value_or(AgentType::custom);
}

template <typename T>
std::expected<T, DecodeError> resultOf(const StrictJsonObject& object, T value) {
  if (object.error()) return std::unexpected(DecodeError{*object.error()});
  return value;
}

void readTotals(StrictJsonObject& object, AgentUsageSummary& summary) {
  summary.totalTokens = object.integer("totalTokens");
  summary.inputTokens = object.integer("inputTokens");
  summary.outputTokens = object.integer("outputTokens");
  summary.cachedTokens = object.integer("cachedTokens");
  summary.cacheWriteTokens = object.integer("cacheWriteTokens");
  summary.reasoningTokens = object.integer("reasoningTokens");
  summary.estimatedCostUSD = object.optionalNumber("estimatedCostUSD");
  summary.sessionCount = object.integer("sessionCount");
  summary.turnCount = object.integer("turnCount");
}

}  // namespace

nlohmann::json toJson(const UsageEvent& event, DateCoding dates) {
  nlohmann::json object{{"id", event.id},
                        {"agentType", rawValue(event.agentType)},
                        {"sessionId", event.sessionId},
                        {"timestamp", encodeInstant(event.timestamp, dates)},
                        {"source", event.source}};
  put(object, "turnId", event.turnId);
  put(object, "modelId", event.modelId);
  put(object, "inputTokens", event.inputTokens);
  put(object, "outputTokens", event.outputTokens);
  put(object, "cachedTokens", event.cachedTokens);
  put(object, "cacheWriteTokens", event.cacheWriteTokens);
  put(object, "reasoningTokens", event.reasoningTokens);
  put(object, "totalTokens", event.totalTokens);
  put(object, "contextWindow", event.contextWindow);
  put(object, "costEstimateUSD", event.costEstimateUSD);
  put(object, "quotaRemainingPercent", event.quotaRemainingPercent);
  return object;
}

nlohmann::json toJson(const SessionUsageRecord& record, DateCoding dates) {
  nlohmann::json object{{"id", record.id},
                        {"agentType", rawValue(record.agentType)},
                        {"startedAt", encodeInstant(record.startedAt, dates)},
                        {"lastActiveAt", encodeInstant(record.lastActiveAt, dates)},
                        {"durationSeconds", record.durationSeconds},
                        {"totalTokens", record.totalTokens},
                        {"inputTokens", record.inputTokens},
                        {"outputTokens", record.outputTokens},
                        {"cachedTokens", record.cachedTokens},
                        {"cacheWriteTokens", record.cacheWriteTokens},
                        {"reasoningTokens", record.reasoningTokens}};
  put(object, "modelId", record.modelId);
  put(object, "estimatedCostUSD", record.estimatedCostUSD);
  put(object, "contextWindow", record.contextWindow);
  put(object, "quotaRemainingPercent", record.quotaRemainingPercent);
  return object;
}

nlohmann::json toJson(const AgentUsageSummary& summary) {
  nlohmann::json object{
      {"totalTokens", summary.totalTokens},           {"inputTokens", summary.inputTokens},
      {"outputTokens", summary.outputTokens},         {"cachedTokens", summary.cachedTokens},
      {"cacheWriteTokens", summary.cacheWriteTokens}, {"reasoningTokens", summary.reasoningTokens},
      {"sessionCount", summary.sessionCount},         {"turnCount", summary.turnCount}};
  put(object, "estimatedCostUSD", summary.estimatedCostUSD);
  return object;
}

nlohmann::json toJson(const UsageSummary& summary) {
  auto object = toJson(static_cast<const AgentUsageSummary&>(summary));
  auto& agents = object["byAgent"] = nlohmann::json::object();
  for (const auto& [agent, totals] : summary.byAgent) agents[agent] = toJson(totals);
  return object;
}

std::expected<UsageEvent, DecodeError> usageEventFromJson(const nlohmann::json& value, DateCoding dates) {
  StrictJsonObject object(value, "usage event");
  UsageEvent event;
  event.id = object.string("id");
  event.agentType = readAgentType(object);
  event.sessionId = object.string("sessionId");
  event.turnId = object.optionalString("turnId");
  event.modelId = object.optionalString("modelId");
  event.inputTokens = object.optionalInteger("inputTokens");
  event.outputTokens = object.optionalInteger("outputTokens");
  event.cachedTokens = object.optionalInteger("cachedTokens");
  event.cacheWriteTokens = object.optionalInteger("cacheWriteTokens");
  event.reasoningTokens = object.optionalInteger("reasoningTokens");
  event.totalTokens = object.optionalInteger("totalTokens");
  event.contextWindow = object.optionalInteger("contextWindow");
  event.costEstimateUSD = object.optionalNumber("costEstimateUSD");
  event.quotaRemainingPercent = object.optionalNumber("quotaRemainingPercent");
  event.timestamp = readInstant(object, "timestamp", dates);
  event.source = object.string("source");
  return resultOf(object, std::move(event));
}

std::expected<SessionUsageRecord, DecodeError> sessionUsageRecordFromJson(const nlohmann::json& value,
                                                                          DateCoding dates) {
  StrictJsonObject object(value, "session usage record");
  SessionUsageRecord record;
  record.id = object.string("id");
  record.agentType = readAgentType(object);
  record.modelId = object.optionalString("modelId");
  record.startedAt = readInstant(object, "startedAt", dates);
  record.lastActiveAt = readInstant(object, "lastActiveAt", dates);
  record.durationSeconds = object.number("durationSeconds");
  record.totalTokens = object.integer("totalTokens");
  record.inputTokens = object.integer("inputTokens");
  record.outputTokens = object.integer("outputTokens");
  record.cachedTokens = object.integer("cachedTokens");
  record.cacheWriteTokens = object.integer("cacheWriteTokens");
  record.reasoningTokens = object.integer("reasoningTokens");
  record.estimatedCostUSD = object.optionalNumber("estimatedCostUSD");
  record.contextWindow = object.optionalInteger("contextWindow");
  record.quotaRemainingPercent = object.optionalNumber("quotaRemainingPercent");
  return resultOf(object, std::move(record));
}

std::expected<AgentUsageSummary, DecodeError> agentUsageSummaryFromJson(const nlohmann::json& value) {
  StrictJsonObject object(value, "agent usage summary");
  AgentUsageSummary summary;
  readTotals(object, summary);
  return resultOf(object, std::move(summary));
}

std::expected<UsageSummary, DecodeError> usageSummaryFromJson(const nlohmann::json& value) {
  StrictJsonObject object(value, "usage summary");
  UsageSummary summary;
  readTotals(object, summary);
  const auto* agents = object.member("byAgent");
  if (agents == nullptr || !agents->is_object()) {
    object.fail("byAgent", "is missing");
  } else {
    for (const auto& [agent, totals] : agents->items()) {
      auto decoded = agentUsageSummaryFromJson(totals);
      if (!decoded) return std::unexpected(decoded.error());
      summary.byAgent.emplace(agent, *std::move(decoded));
    }
  }
  return resultOf(object, std::move(summary));
}

}  // namespace vimbrel
