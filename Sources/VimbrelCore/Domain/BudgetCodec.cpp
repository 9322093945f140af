// SPDX-License-Identifier: Apache-2.0
#include "Domain/BudgetCodec.h"

#include <nlohmann/json.hpp>

#include "Domain/UsageMetricsCodec.h"
#include "Support/StrictJson.h"

namespace vimbrel {
namespace {

template <typename T>
void put(nlohmann::json& object, const char* key, const std::optional<T>& value) {
  if (value) object[key] = *value;
}

template <typename T>
std::expected<T, DecodeError> resultOf(const StrictJsonObject& object, T value) {
  if (object.error()) return std::unexpected(DecodeError{*object.error()});
  return value;
}

std::expected<ContextBudget, DecodeError> contextBudgetFromJson(const nlohmann::json& value) {
  StrictJsonObject object(value, "context budget");
  const auto window = object.integer("contextWindow");
  const auto consumed = object.integer("tokensConsumed");
  // The rest follows from these two; it must be there, but an older rounding of it is not kept.
  for (const auto* key : {"tokensRemaining", "percentageRemaining", "percentageUsed"})
    (void)object.number(key);
  return resultOf(object, ContextBudget::create(window, consumed));
}

std::expected<AccountQuotaBudget, DecodeError> quotaBudgetFromJson(const nlohmann::json& value,
                                                                   DateCoding dates) {
  StrictJsonObject object(value, "account quota budget");
  AccountQuotaBudget budget;
  budget.percentageRemaining = object.number("percentageRemaining");
  budget.usedPercent = object.optionalNumber("usedPercent");
  budget.windowMinutes = object.optionalInteger("windowMinutes");
  budget.resetsAt = readOptionalInstant(object, "resetsAt", dates);
  budget.planType = object.optionalString("planType");
  return resultOf(object, AccountQuotaBudget::create(std::move(budget)));
}

template <typename T, typename Encode>
nlohmann::json encodeMetric(const BudgetMetric<T>& metric, Encode encode) {
  if (const auto* value = metric.value()) {
    return {{"type", "known"},
            {"value", encode(*value)},
            {"confidence", metric.confidence()},
            {"source", metric.source().value_or("unknown")}};
  }
  return {{"type", "unavailable"}, {"reason", metric.unavailableReason().value_or("Unavailable")}};
}

template <typename T, typename Decode>
std::expected<BudgetMetric<T>, DecodeError> decodeMetric(const nlohmann::json& json, Decode decode) {
  StrictJsonObject object(json, "budget metric");
  const auto type = object.string("type");
  if (object.error()) return std::unexpected(DecodeError{*object.error()});
  const auto text = [&](const char* key, const char* otherwise) {
    const auto* member = object.member(key);
    return member != nullptr && member->is_string() ? member->get<std::string>() : std::string(otherwise);
  };
  if (type != "known") return BudgetMetric<T>::unavailable(text("reason", "Unavailable"));
  const auto* encoded = object.member("value");
  if (encoded == nullptr) return std::unexpected(DecodeError{"budget metric: \"value\" is missing"});
  auto value = decode(*encoded);
  if (!value) return std::unexpected(value.error());
  const auto* confidence = object.member("confidence");
  const double usable =
      confidence != nullptr && confidence->is_number() ? confidence->template get<double>() : 1.0;
  return BudgetMetric<T>::known(*std::move(value), usable, text("source", "unknown"));
}

/// Decodes a member that is a record of its own; its error becomes the enclosing one's.
template <typename T, typename Decode>
void readMember(StrictJsonObject& object, const char* key, std::optional<DecodeError>& error, T& target,
                Decode decode) {
  const auto* member = object.member(key);
  if (member == nullptr) {
    object.fail(key, "is missing");
    return;
  }
  auto value = decode(*member);
  if (value) {
    target = *std::move(value);
  } else if (!error) {
    error = value.error();
  }
}

std::expected<CostBudget, DecodeError> costBudgetFromJson(const nlohmann::json& value) {
  StrictJsonObject object(value, "cost budget");
  CostBudget cost{object.number("amountUSD"), object.boolean("isEstimated")};
  return resultOf(object, cost);
}

}  // namespace

nlohmann::json toJson(const ContextBudget& budget) {
  return {{"contextWindow", budget.contextWindow()},
          {"tokensConsumed", budget.tokensConsumed()},
          {"tokensRemaining", budget.tokensRemaining()},
          {"percentageRemaining", budget.percentageRemaining()},
          {"percentageUsed", budget.percentageUsed()}};
}

nlohmann::json toJson(const AccountQuotaBudget& budget, DateCoding dates) {
  nlohmann::json object{{"percentageRemaining", budget.percentageRemaining}};
  put(object, "usedPercent", budget.usedPercent);
  put(object, "windowMinutes", budget.windowMinutes);
  if (budget.resetsAt) object["resetsAt"] = encodeInstant(*budget.resetsAt, dates);
  put(object, "planType", budget.planType);
  return object;
}

nlohmann::json toJson(const BudgetMetric<ContextBudget>& metric) {
  return encodeMetric(metric, [](const ContextBudget& value) { return toJson(value); });
}

nlohmann::json toJson(const BudgetMetric<AccountQuotaBudget>& metric, DateCoding dates) {
  return encodeMetric(metric, [dates](const AccountQuotaBudget& value) { return toJson(value, dates); });
}

nlohmann::json toJson(const CostBudget& cost) {
  return {{"amountUSD", cost.amountUSD}, {"isEstimated", cost.isEstimated}};
}

nlohmann::json toJson(const LowBudgetAlert& alert) {
  return {{"level", rawValue(alert.level)},
          {"metricType", rawValue(alert.metricType)},
          {"percentageRemaining", alert.percentageRemaining},
          {"message", alert.message}};
}

nlohmann::json toJson(const ProviderBudgetReport& report, DateCoding dates) {
  nlohmann::json object{{"agentType", rawValue(report.agentType)},
                        {"context", toJson(report.context)},
                        {"quota", toJson(report.quota, dates)},
                        {"sessionUsage", toJson(report.sessionUsage, dates)},
                        {"lastUpdated", encodeInstant(report.lastUpdated, dates)},
                        {"source", report.source}};
  put(object, "sessionId", report.sessionId);
  put(object, "modelId", report.modelId);
  if (report.cost) object["cost"] = toJson(*report.cost);
  if (report.lowBudgetAlert) object["lowBudgetAlert"] = toJson(*report.lowBudgetAlert);
  return object;
}

std::expected<BudgetMetric<ContextBudget>, DecodeError> contextMetricFromJson(const nlohmann::json& value) {
  return decodeMetric<ContextBudget>(value, contextBudgetFromJson);
}

std::expected<BudgetMetric<AccountQuotaBudget>, DecodeError> quotaMetricFromJson(const nlohmann::json& value,
                                                                                 DateCoding dates) {
  return decodeMetric<AccountQuotaBudget>(
      value, [dates](const nlohmann::json& inner) { return quotaBudgetFromJson(inner, dates); });
}

std::expected<LowBudgetAlert, DecodeError> lowBudgetAlertFromJson(const nlohmann::json& value) {
  StrictJsonObject object(value, "low budget alert");
  LowBudgetAlert alert;
  const auto level = lowBudgetLevelFromRawValue(object.string("level"));
  if (!level) object.fail("level", "is not a known level");
  const auto type = lowBudgetMetricTypeFromRawValue(object.string("metricType"));
  if (!type) object.fail("metricType", "is not a known metric");
  alert.level = level.value_or(LowBudgetLevel::warning);
  alert.metricType = type.value_or(LowBudgetMetricType::context);
  alert.percentageRemaining = object.number("percentageRemaining");
  alert.message = object.string("message");
  return resultOf(object, std::move(alert));
}

std::expected<ProviderBudgetReport, DecodeError> providerBudgetReportFromJson(const nlohmann::json& value,
                                                                              DateCoding dates) {
  StrictJsonObject object(value, "budget report");
  std::optional<DecodeError> inner;
  ProviderBudgetReport report;
  const auto agent = agentTypeFromRawValue(object.string("agentType"));
  if (!agent) object.fail("agentType", "is not a known agent");
  report.agentType = agent.value_or(AgentType::custom);
  report.sessionId = object.optionalString("sessionId");
  report.modelId = object.optionalString("modelId");
  readMember(object, "context", inner, report.context, contextMetricFromJson);
  readMember(object, "quota", inner, report.quota,
             [dates](const nlohmann::json& metric) { return quotaMetricFromJson(metric, dates); });
  readMember(object, "sessionUsage", inner, report.sessionUsage,
             [dates](const nlohmann::json& usage) { return usageMetricsFromJson(usage, dates); });
  if (object.member("cost") != nullptr) readMember(object, "cost", inner, report.cost, costBudgetFromJson);
  if (object.member("lowBudgetAlert") != nullptr) {
    readMember(object, "lowBudgetAlert", inner, report.lowBudgetAlert, lowBudgetAlertFromJson);
  }
  report.lastUpdated = readInstant(object, "lastUpdated", dates);
  report.source = object.string("source");
  if (inner) return std::unexpected(*inner);
  return resultOf(object, std::move(report));
}

}  // namespace vimbrel
