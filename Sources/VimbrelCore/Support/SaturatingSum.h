// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <limits>

namespace vimbrel {

/// Token counts come from outside; sums of them stop at the ends of the range instead of overflowing.
constexpr std::int64_t saturatingAdd(std::int64_t left, std::int64_t right) {
  std::int64_t sum = 0;
  if (!__builtin_add_overflow(left, right, &sum)) return sum;
  return right > 0 ? std::numeric_limits<std::int64_t>::max() : std::numeric_limits<std::int64_t>::min();
}

constexpr std::int64_t saturatingSubtract(std::int64_t left, std::int64_t right) {
  std::int64_t difference = 0;
  if (!__builtin_sub_overflow(left, right, &difference)) return difference;
  return right < 0 ? std::numeric_limits<std::int64_t>::max() : std::numeric_limits<std::int64_t>::min();
}

template <typename... More>
constexpr std::int64_t saturatingAdd(std::int64_t first, std::int64_t second, More... more) {
  return saturatingAdd(saturatingAdd(first, second), more...);
}

}  // namespace vimbrel
