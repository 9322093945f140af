// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <memory>

#include "AgentMonitoring/MoneyBudgets/MoneyBudgetBook.h"
#include "AgentMonitoring/UsageCoordinator.h"

namespace vimbrel {

/// Looks at the money budgets whenever usage was recorded, and announces each threshold once. Queue: the main
/// queue; the sums are made where the store is.
class MoneyBudgetWatch : public std::enable_shared_from_this<MoneyBudgetWatch> {
 public:
  /// `clock` must outlive the watch.
  MoneyBudgetWatch(std::shared_ptr<UsageCoordinator> usage, std::shared_ptr<MoneyBudgetBook> book,
                   const Clock& clock, std::shared_ptr<TaskQueue> mainQueue);

  void start(std::function<void(const MoneyBudgetNotice&)> onNotice);
  /// Looks now; several calls before the sums are made are one.
  void check();

 private:
  const std::shared_ptr<UsageCoordinator> usage_;
  const std::shared_ptr<MoneyBudgetBook> book_;
  const Clock& clock_;
  const std::shared_ptr<TaskQueue> mainQueue_;
  std::function<void(const MoneyBudgetNotice&)> onNotice_;
  bool isChecking_ = false;
  Token summaryChanged_;
};

/// The standings of the book's budgets in the user's calendar; where the store is. A session belongs to the
/// directory that the import's index has for it, else to the one that was `heard`. The error is a sentence.
[[nodiscard]] std::expected<std::vector<BudgetStanding>, std::string> standingsNow(
    const UsageStore& store, MoneyBudgetBook& book, Instant now, const SessionDirectories& heard);

}  // namespace vimbrel
