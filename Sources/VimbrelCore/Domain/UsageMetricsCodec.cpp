// SPDX-License-Identifier: Apache-2.0
#include "Domain/UsageMetricsCodec.h"

#include <nlohmann/json.hpp>

namespace vimbrel {
namespace {

struct CountField {
  const char* key;
  std::optional<std::int64_t> UsageMetrics::* member;
};

constexpr CountField counts[] = {
    {"inputTokens", &UsageMetrics::inputTokens},
    {"outputTokens", &UsageMetrics::outputTokens},
    {"cachedTokens", &UsageMetrics::cachedTokens},
    {"cacheWriteTokens", &UsageMetrics::cacheWriteTokens},
    {"reasoningTokens", &UsageMetrics::reasoningTokens},
    {"totalTokens", &UsageMetrics::totalTokens},
    {"contextWindow", &UsageMetrics::contextWindow},
};

}  // namespace

nlohmann::ordered_json toJson(const UsageMetrics& metrics, DateCoding dates) {
  auto object = nlohmann::ordered_json::object();
  for (const auto& [key, member] : counts) {
    if (metrics.*member) object[key] = *(metrics.*member);
  }
  if (metrics.sessionCostEstimateUSD) object["sessionCostEstimateUSD"] = *metrics.sessionCostEstimateUSD;
  object["recordedAt"] = encodeInstant(metrics.recordedAt, dates);
  return object;
}

std::expected<UsageMetrics, DecodeError> usageMetricsFromJson(const nlohmann::json& value, DateCoding dates) {
  StrictJsonObject object(value, "usage metrics");
  UsageMetrics metrics;
  for (const auto& [key, member] : counts) metrics.*member = object.optionalInteger(key);
  metrics.sessionCostEstimateUSD = object.optionalNumber("sessionCostEstimateUSD");
  metrics.recordedAt = readInstant(object, "recordedAt", dates);
  if (object.error()) return std::unexpected(DecodeError{*object.error()});
  return metrics;
}

}  // namespace vimbrel
