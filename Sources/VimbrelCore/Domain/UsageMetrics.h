// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <optional>

#include "Support/Instant.h"

namespace vimbrel {

/// A snapshot of one session's usage. Counts are tokens; money is US dollars.
struct UsageMetrics {
  std::optional<std::int64_t> inputTokens;
  std::optional<std::int64_t> outputTokens;
  std::optional<std::int64_t> cachedTokens;
  std::optional<std::int64_t> cacheWriteTokens;
  std::optional<std::int64_t> reasoningTokens;
  std::optional<std::int64_t> totalTokens;
  std::optional<std::int64_t> contextWindow;
  std::optional<double> sessionCostEstimateUSD;
  Instant recordedAt{};

  /// `totalTokens`, else input + output + reasoning (saturating), absent when that sum is below 1.
  [[nodiscard]] std::optional<std::int64_t> effectiveTotalTokens() const;
  bool operator==(const UsageMetrics&) const = default;
};

}  // namespace vimbrel
