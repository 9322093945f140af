// SPDX-License-Identifier: Apache-2.0
#include "Support/ClosestMatch.h"

#include <algorithm>
#include <vector>

namespace vimbrel {
namespace {

/// Nobody means a command by a text that is longer than this.
constexpr std::size_t longestTyped = 64;

char lowered(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

/// Edit distance with swaps of neighbours (optimal string alignment).
std::size_t typingErrors(std::string_view left, std::string_view right) {
  std::vector<std::size_t> beforePrevious(right.size() + 1);
  std::vector<std::size_t> previous(right.size() + 1);
  std::vector<std::size_t> current(right.size() + 1);
  for (std::size_t j = 0; j <= right.size(); ++j) current[j] = j;
  for (std::size_t i = 1; i <= left.size(); ++i) {
    std::swap(beforePrevious, previous);
    std::swap(previous, current);
    current[0] = i;
    for (std::size_t j = 1; j <= right.size(); ++j) {
      const bool same = lowered(left[i - 1]) == lowered(right[j - 1]);
      current[j] = std::min({previous[j] + 1, current[j - 1] + 1, previous[j - 1] + (same ? 0 : 1)});
      if (i > 1 && j > 1 && lowered(left[i - 1]) == lowered(right[j - 2]) &&
          lowered(left[i - 2]) == lowered(right[j - 1])) {
        current[j] = std::min(current[j], beforePrevious[j - 2] + 1);
      }
    }
  }
  return current[right.size()];
}

}  // namespace

std::optional<std::string_view> closestMatch(std::string_view text,
                                             std::span<const std::string_view> candidates) {
  std::optional<std::string_view> best;
  std::size_t fewest = 0;
  if (text.empty() || text.size() > longestTyped) return best;
  for (const auto candidate : candidates) {
    const auto errors = typingErrors(text, candidate);
    const auto allowed = std::max<std::size_t>(candidate.size() / 3, 1);
    if (errors <= allowed && (!best || errors < fewest)) {
      best = candidate;
      fewest = errors;
    }
  }
  return best;
}

}  // namespace vimbrel
