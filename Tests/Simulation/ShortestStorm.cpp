// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <iterator>

#include "Simulation/Storm.h"

namespace vimbrel {

std::string promiseOf(const std::string& violation) {
  const auto start = violation.find(": ");
  auto text = start == violation.npos ? violation : violation.substr(start + 2);
  text = text.substr(0, text.find(" ("));
  return text.substr(0, text.find(": "));
}

StormPlan minimised(const StormPlan& plan, const StormResult& result) {
  const auto promise = promiseOf(result.violation.value_or(""));
  StormPlan best = plan;
  if (!best.only) {
    best.only.emplace();
    for (std::uint32_t step = 0; step < plan.steps; ++step) best.only->insert(step);
  }
  best.only->erase(best.only->upper_bound(result.lastStep), best.only->end());
  const auto stillFails = [&](const StormPlan& candidate) {
    const auto again = runStorm(candidate);
    return again.violation && promiseOf(*again.violation) == promise;
  };
  // Pieces of half the steps first, then of a quarter, down to single ones, for as long as any can go.
  for (std::size_t piece = std::max<std::size_t>(1, best.only->size() / 2);;) {
    bool removed = false;
    for (std::size_t at = 0; at < best.only->size();) {
      StormPlan candidate = best;
      const auto from = std::next(candidate.only->begin(), static_cast<std::ptrdiff_t>(at));
      auto to = from;
      for (std::size_t i = 0; i < piece && to != candidate.only->end(); ++i) ++to;
      candidate.only->erase(from, to);
      if (stillFails(candidate)) {
        best = std::move(candidate);
        removed = true;
      } else {
        at += piece;
      }
    }
    if (piece == 1 && !removed) break;
    piece = std::max<std::size_t>(1, piece / 2);
  }
  return best;
}

}  // namespace vimbrel
