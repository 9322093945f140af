// SPDX-License-Identifier: Apache-2.0
#include "Domain/BudgetIntelligence.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <vector>

#include "Domain/RawValueTable.h"
#include "Support/DollarText.h"
#include "Support/Sentence.h"

namespace vimbrel {
namespace {

struct LevelRow {
  LowBudgetLevel value;
  std::string_view raw;
  std::string_view display;
  std::string_view phrase;
};

constexpr std::array<LevelRow, 3> levels{{
    {LowBudgetLevel::warning, "warning", sentence("Low"), sentence("low")},
    {LowBudgetLevel::critical, "critical", sentence("Critically Low"), sentence("critically low")},
    {LowBudgetLevel::exhausted, "exhausted", sentence("Exhausted"), sentence("exhausted")},
}};

struct MetricTypeRow {
  LowBudgetMetricType value;
  std::string_view raw;
  std::string_view subject;
};

constexpr std::array<MetricTypeRow, 2> metricTypes{{
    {LowBudgetMetricType::context, "context", sentence("Context window")},
    {LowBudgetMetricType::quota, "quota", sentence("Account quota")},
}};

static_assert(rowsFollowDeclaration(levels));
static_assert(rowsFollowDeclaration(metricTypes));

constexpr std::string_view separator = " \u00B7 ";

std::string formatted(const char* format, double value) {
  const int length = std::snprintf(nullptr, 0, format, value);
  std::string text(static_cast<std::size_t>(length), '\0');
  std::snprintf(text.data(), text.size() + 1, format, value);
  return text;
}

/// Halves away from zero, unlike printf's rounding of halves to even.
std::string wholeNumber(double value) { return formatted("%.0f", std::round(value)); }

/// Not-a-number counts as nothing left, so that it can never look like room to spare.
double limitedPercentage(double value) { return std::isnan(value) ? 0 : std::clamp(value, 0.0, 100.0); }

std::string joined(const std::vector<std::string>& parts) {
  std::string text;
  for (const auto& part : parts) {
    if (!text.empty()) text += separator;
    text += part;
  }
  return text;
}

std::optional<LowBudgetLevel> levelOf(double percentage) {
  if (percentage <= 5) return LowBudgetLevel::exhausted;
  if (percentage <= 10) return LowBudgetLevel::critical;
  if (percentage <= lowBudgetPercent) return LowBudgetLevel::warning;
  return std::nullopt;
}

}  // namespace

std::string_view rawValue(LowBudgetLevel level) { return rowOf(levels, level).raw; }
std::string_view rawValue(LowBudgetMetricType type) { return rowOf(metricTypes, type).raw; }
std::string_view displayLabel(LowBudgetLevel level) { return rowOf(levels, level).display; }
std::optional<LowBudgetLevel> lowBudgetLevelFromRawValue(std::string_view text) {
  return valueWithRaw(levels, text);
}
std::optional<LowBudgetMetricType> lowBudgetMetricTypeFromRawValue(std::string_view text) {
  return valueWithRaw(metricTypes, text);
}

std::string formatTokenCompact(std::int64_t count) {
  if (count < 1'000) return std::to_string(count);
  if (count < 1'000'000) return wholeNumber(static_cast<double>(count) / 1'000) + "k";
  const char* format = count % 1'000'000 == 0 ? "%.0fM" : "%.1fM";
  return formatted(format, static_cast<double>(count) / 1'000'000);
}

ContextBudget ContextBudget::create(std::int64_t contextWindow, std::int64_t tokensConsumed) {
  ContextBudget budget;
  budget.contextWindow_ = std::max<std::int64_t>(contextWindow, 1);
  budget.tokensConsumed_ = std::max<std::int64_t>(tokensConsumed, 0);
  budget.tokensRemaining_ = std::max<std::int64_t>(budget.contextWindow_ - budget.tokensConsumed_, 0);
  const auto window = static_cast<double>(budget.contextWindow_);
  budget.percentageRemaining_ =
      limitedPercentage(static_cast<double>(budget.tokensRemaining_) / window * 100);
  budget.percentageUsed_ = limitedPercentage(static_cast<double>(budget.tokensConsumed_) / window * 100);
  return budget;
}

AccountQuotaBudget AccountQuotaBudget::create(AccountQuotaBudget fields) {
  fields.percentageRemaining = limitedPercentage(fields.percentageRemaining);
  return fields;
}

std::string AccountQuotaBudget::formattedQuotaRemaining() const {
  return sentence("%1% quota left", {wholeNumber(percentageRemaining)});
}

std::string CostBudget::formattedCost() const {
  auto text = dollarText(amountUSD);
  return isEstimated ? sentence("%1 est.", {text}) : text;
}

namespace LowBudgetThreshold {

std::optional<LowBudgetAlert> evaluate(std::optional<double> contextRemainingPercent,
                                       std::optional<double> quotaRemainingPercent) {
  std::optional<LowBudgetAlert> alert;
  const auto check = [&](LowBudgetMetricType type, std::optional<double> percentage) {
    if (!percentage) return;
    const auto level = levelOf(*percentage);
    if (!level || (alert && *level <= alert->level)) return;
    alert = LowBudgetAlert{
        *level, type, *percentage,
        sentence("%1 is %2 (%3% remaining)",
                 {rowOf(metricTypes, type).subject, rowOf(levels, *level).phrase, wholeNumber(*percentage)})};
  };
  check(LowBudgetMetricType::quota, quotaRemainingPercent);
  check(LowBudgetMetricType::context, contextRemainingPercent);
  return alert;
}

}  // namespace LowBudgetThreshold

ProviderBudgetReport ProviderBudgetReport::make(ProviderBudgetReport fields) {
  if (fields.lowBudgetAlert) return fields;
  const auto* context = fields.context.value();
  const auto* quota = fields.quota.value();
  fields.lowBudgetAlert =
      LowBudgetThreshold::evaluate(context ? std::optional(context->percentageRemaining()) : std::nullopt,
                                   quota ? std::optional(quota->percentageRemaining) : std::nullopt);
  return fields;
}

std::string ProviderBudgetReport::id() const {
  return std::string(rawValue(agentType)) + "_" + sessionId.value_or("global");
}

std::string ProviderBudgetReport::actionableSummaryLine() const {
  std::vector<std::string> parts;
  const auto* left = quota.value();
  if (left != nullptr && left->isLow()) {
    parts.push_back(left->formattedQuotaRemaining());
    parts.emplace_back(lowBudgetAlert ? displayLabel(lowBudgetAlert->level) : sentence("Low"));
    if (cost) parts.push_back(cost->formattedCost());
    return joined(parts);
  }
  if (const auto* budget = context.value()) {
    parts.push_back(sentence("%1 context left", {budget->formattedTokensRemaining()}));
    parts.push_back(sentence("%1% remaining", {wholeNumber(budget->percentageRemaining())}));
  } else if (const auto total = sessionUsage.effectiveTotalTokens(); total.value_or(0) >= 1) {
    parts.push_back(sentence("%1 tokens", {formatTokenCompact(*total)}));
  }
  if (left != nullptr) parts.push_back(sentence("Quota %1% left", {wholeNumber(left->percentageRemaining)}));
  if (cost) parts.push_back(cost->formattedCost());
  return parts.empty() ? sentence("Budget telemetry unavailable") : joined(parts);
}

std::string ProviderBudgetReport::idleSummaryLine() const {
  std::vector<std::string> parts;
  if (const auto* budget = context.value()) {
    parts.push_back(sentence("Last session: %1 context left", {budget->formattedTokensRemaining()}));
  } else {
    const auto total = sessionUsage.effectiveTotalTokens();
    if (total.value_or(0) < 1) return sentence("Idle · Ready for sessions");
    parts.push_back(sentence("Last session: %1 tokens", {formatTokenCompact(*total)}));
  }
  if (cost) parts.push_back(cost->formattedCost());
  return joined(parts);
}

}  // namespace vimbrel
