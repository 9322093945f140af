// SPDX-License-Identifier: Apache-2.0
#include "Domain/UsageEvent.h"

#include <algorithm>

#include "Support/JsonWriter.h"
#include "Support/SaturatingSum.h"

namespace vimbrel {
namespace {

template <typename Event>
std::int64_t countedTokens(const Event& event) {
  return saturatingAdd(event.inputTokens.value_or(0), event.outputTokens.value_or(0),
                       event.reasoningTokens.value_or(0));
}

std::int64_t allCounts(const UsageEventView& event) {
  return saturatingAdd(countedTokens(event), event.cachedTokens.value_or(0),
                       event.cacheWriteTokens.value_or(0));
}

template <typename To, typename From>
std::optional<To> textAs(const std::optional<From>& text) {
  return text ? std::optional<To>(*text) : std::nullopt;
}

}  // namespace

std::int64_t UsageEventView::tokenFigure() const {
  return totalTokens ? *totalTokens : std::max<std::int64_t>(countedTokens(*this), 0);
}

std::optional<std::int64_t> UsageEventView::effectiveTotalTokens() const {
  if (totalTokens) return totalTokens;
  const auto sum = countedTokens(*this);
  return sum >= 1 ? std::optional(sum) : std::nullopt;
}

void UsageEventView::appendDeduplicationKey(std::string& text) const {
  text += rawValue(agentType);
  text += '_';
  text += sessionId;
  text += '_';
  if (turnId && !turnId->empty()) {
    text += *turnId;
    return;
  }
  text += shortestDecimal(unixSeconds(timestamp));
  text += '_';
  appendInteger(text, totalTokens.value_or(0));
}

bool UsageEventView::countsMoreThan(const UsageEventView& other) const {
  if (tokenFigure() != other.tokenFigure()) return tokenFigure() > other.tokenFigure();
  return allCounts(*this) > allCounts(other);
}

UsageEvent UsageEventView::toEvent() const {
  return UsageEvent{.id = std::string(id),
                    .agentType = agentType,
                    .sessionId = std::string(sessionId),
                    .turnId = textAs<std::string>(turnId),
                    .modelId = textAs<std::string>(modelId),
                    .inputTokens = inputTokens,
                    .outputTokens = outputTokens,
                    .cachedTokens = cachedTokens,
                    .cacheWriteTokens = cacheWriteTokens,
                    .reasoningTokens = reasoningTokens,
                    .totalTokens = totalTokens,
                    .contextWindow = contextWindow,
                    .costEstimateUSD = costEstimateUSD,
                    .quotaRemainingPercent = quotaRemainingPercent,
                    .timestamp = timestamp,
                    .source = std::string(source)};
}

UsageEvent UsageEvent::make(UsageEvent fields) {
  if (!fields.totalTokens) fields.totalTokens = fields.effectiveTotalTokens();
  return fields;
}

UsageEventView UsageEvent::view() const {
  return UsageEventView{.id = id,
                        .agentType = agentType,
                        .sessionId = sessionId,
                        .turnId = textAs<std::string_view>(turnId),
                        .modelId = textAs<std::string_view>(modelId),
                        .inputTokens = inputTokens,
                        .outputTokens = outputTokens,
                        .cachedTokens = cachedTokens,
                        .cacheWriteTokens = cacheWriteTokens,
                        .reasoningTokens = reasoningTokens,
                        .totalTokens = totalTokens,
                        .contextWindow = contextWindow,
                        .costEstimateUSD = costEstimateUSD,
                        .quotaRemainingPercent = quotaRemainingPercent,
                        .timestamp = timestamp,
                        .source = source};
}

std::optional<double> UsageEvent::contextUtilization() const {
  if (!contextWindow || *contextWindow < 1) return std::nullopt;
  const auto tokens = effectiveTotalTokens();
  if (!tokens) return std::nullopt;
  return std::min(static_cast<double>(*tokens) / static_cast<double>(*contextWindow), 1.0);
}

std::string UsageEvent::deduplicationKey() const {
  std::string key;
  view().appendDeduplicationKey(key);
  return key;
}

}  // namespace vimbrel
