// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "AgentMonitoring/UsageStore/UsageEventTable.h"
#include "Domain/ModelRateCard.h"
#include "Domain/SessionUsageRecord.h"
#include "Domain/UsageSummary.h"

namespace vimbrel {

/// Every usage event that was accepted, each of them once, and the totals of their sessions. Not
/// synchronised.
struct UsageLedger {
  UsageEventTable events;
  std::unordered_map<std::string, SessionUsageRecord> sessions;
  /// What was used before this was forgotten, and is not to be taken from logs again.
  std::optional<Instant> forgottenBefore;

  /// Takes a new event, or a later reading of a known one that counted more: it takes the place of the
  /// earlier one. False for what is known already.
  bool accept(const UsageEventView& event);
  /// Gives the events of models that had no price the price that `card` knows; returns how many.
  std::size_t priceUnpriced(const ModelRateCard& card);

  /// Events with `from` ≤ timestamp ≤ `to`.
  [[nodiscard]] UsageSummary summary(Instant from, Instant to) const;
  /// Latest activity first, at most `limit`.
  [[nodiscard]] std::vector<SessionUsageRecord> recentSessions(std::size_t limit) const;

 private:
  void replace(UsageEventTable::Row row, const UsageEventView& event, const UsageEventView& counted);
  void rebuildSession(const std::string& sessionId);
};

}  // namespace vimbrel
