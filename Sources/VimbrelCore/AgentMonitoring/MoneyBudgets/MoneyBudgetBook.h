// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <expected>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "AgentMonitoring/MoneyBudgets/MoneyBudget.h"
#include "Support/Log.h"

namespace vimbrel {

/// What is to be said about a budget: that 80 % of it is spent, or all of it.
struct MoneyBudgetNotice {
  BudgetStanding standing;
  int percent = 80;  ///< 80 or 100
  [[nodiscard]] std::string title() const;
  [[nodiscard]] std::string message() const;
};

/// The user's money budgets and what was already said about each, in one file that people may edit. Any
/// thread.
class MoneyBudgetBook {
 public:
  /// "com.vimbrel.app/budgets.json" under the user's configuration directory.
  [[nodiscard]] static std::string defaultPath();

  /// Reads the file at once and again when it has changed.
  explicit MoneyBudgetBook(std::string path = defaultPath());

  /// The error, a sentence, tells what of the file cannot be used; the budgets of the last readable file stay
  /// in force.
  [[nodiscard]] std::expected<std::vector<MoneyBudget>, std::string> budgets();
  /// Sets the budget of its scope. Refused, with a sentence, while the file cannot be read.
  [[nodiscard]] std::expected<void, std::string> set(const MoneyBudget& budget);
  /// False when there was none.
  [[nodiscard]] std::expected<bool, std::string> remove(const BudgetScope& scope);

  /// The notices that are due: each threshold is announced once in a budget's period, also over restarts, and
  /// the lower one is not made up for when the higher one is reached first.
  [[nodiscard]] std::vector<MoneyBudgetNotice> takeDueNotices(const std::vector<BudgetStanding>& standings);

 private:
  struct Said {
    std::int64_t periodStart = 0;  ///< seconds since 1970
    int percent = 0;
  };
  std::expected<void, std::string> readLocked();
  std::expected<void, std::string> writeLocked();

  const std::string path_;
  const Logger logger_{"usage.budgets"};
  std::mutex lock_;
  std::string text_;  ///< of the file, when it was last read or written
  std::expected<void, std::string> readable_;
  std::vector<MoneyBudget> budgets_;
  std::map<std::string, Said> said_;  ///< by the scope's description
};

}  // namespace vimbrel
