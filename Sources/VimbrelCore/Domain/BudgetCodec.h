// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <expected>
#include <nlohmann/json_fwd.hpp>

#include "Domain/BudgetIntelligence.h"
#include "Domain/DateCoding.h"
#include "Domain/DecodeError.h"

namespace vimbrel {

/// Budgets as JSON objects: keys are the field names, absent fields are left out, decoding is strict. A
/// metric is {"type":"known","value":…,"confidence":…,"source":…} or {"type":"unavailable","reason":…}; of
/// these, confidence, source and reason may be missing, and any other type reads as unavailable.

[[nodiscard]] nlohmann::json toJson(const ContextBudget& budget);
[[nodiscard]] nlohmann::json toJson(const AccountQuotaBudget& budget, DateCoding dates);
[[nodiscard]] nlohmann::json toJson(const BudgetMetric<ContextBudget>& metric);
[[nodiscard]] nlohmann::json toJson(const BudgetMetric<AccountQuotaBudget>& metric, DateCoding dates);
[[nodiscard]] nlohmann::json toJson(const CostBudget& cost);
[[nodiscard]] nlohmann::json toJson(const LowBudgetAlert& alert);
[[nodiscard]] nlohmann::json toJson(const ProviderBudgetReport& report, DateCoding dates);

[[nodiscard]] std::expected<BudgetMetric<ContextBudget>, DecodeError> contextMetricFromJson(
    const nlohmann::json& value);
[[nodiscard]] std::expected<BudgetMetric<AccountQuotaBudget>, DecodeError> quotaMetricFromJson(
    const nlohmann::json& value, DateCoding dates);
[[nodiscard]] std::expected<LowBudgetAlert, DecodeError> lowBudgetAlertFromJson(const nlohmann::json& value);
[[nodiscard]] std::expected<ProviderBudgetReport, DecodeError> providerBudgetReportFromJson(
    const nlohmann::json& value, DateCoding dates);

}  // namespace vimbrel
