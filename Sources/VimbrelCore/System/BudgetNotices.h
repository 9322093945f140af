// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <tuple>

#include "Domain/BudgetIntelligence.h"
#include "System/CoordinatorService.h"
#include "System/NotificationController.h"
#include "System/SettingsStore.h"

namespace vimbrel {

/// Posts a notice when an agent's context or quota runs low: once for each session and level. The setting
/// "lowBudgetNotificationsEnabled" gates them beside "notificationsEnabled"; what happens while they are off
/// is not made up for. Queue: the main queue.
class BudgetNotices final : public CoordinatorService {
 public:
  using BudgetReports = std::map<AgentType, ProviderBudgetReport>;
  /// Sessions whose notices are remembered; the oldest are forgotten first.
  static constexpr std::size_t mostRemembered = 512;

  BudgetNotices(std::shared_ptr<NotificationController> notifications,
                std::shared_ptr<SettingsStore> settings, std::function<const BudgetReports&()> budgetReports)
      : notifications_(std::move(notifications)),
        settings_(std::move(settings)),
        budgetReports_(std::move(budgetReports)) {}

  void didApply(const WakeDecision& previous, const WakeDecision& next) override;

 private:
  using Key = std::tuple<AgentType, std::string, LowBudgetLevel>;
  [[nodiscard]] bool isNew(const Key& key);

  const std::shared_ptr<NotificationController> notifications_;
  const std::shared_ptr<SettingsStore> settings_;
  const std::function<const BudgetReports&()> budgetReports_;
  std::set<Key> posted_;
  std::deque<Key> order_;
};

}  // namespace vimbrel
