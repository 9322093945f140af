// SPDX-License-Identifier: Apache-2.0
#include "Domain/UsageMetrics.h"

#include <algorithm>
#include <limits>

namespace vimbrel {

std::optional<std::int64_t> UsageMetrics::effectiveTotalTokens() const {
  if (totalTokens) return totalTokens;
  // Three 64-bit counts never overflow 128 bits, so that a huge count cannot turn the sum's sign.
  __extension__ using Wide = __int128;
  const Wide sum = Wide{inputTokens.value_or(0)} + outputTokens.value_or(0) + reasoningTokens.value_or(0);
  if (sum < 1) return std::nullopt;
  return static_cast<std::int64_t>(std::min<Wide>(sum, std::numeric_limits<std::int64_t>::max()));
}

}  // namespace vimbrel
