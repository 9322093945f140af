// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <string>

#include "AgentMonitoring/MoneyBudgets/MoneyBudgetBook.h"
#include "AgentMonitoring/MoneyBudgets/MoneyBudgetWatch.h"
#include "AgentMonitoring/UsageCoordinator.h"
#include "AgentMonitoring/UsageImport/HistoryImport.h"

namespace vimbrel {

/// Everything of usage and budgets in the running application. Any part may be missing: what needs it then
/// says that usage is not recorded. In this order, what stands first lives longest.
struct UsageServices {
  std::shared_ptr<const ModelRateCard> card;
  /// Why the user's own prices are not in the card; empty when nothing is wrong with them.
  std::string ratesProblem;
  std::shared_ptr<HistoryImport> import;
  std::shared_ptr<MoneyBudgetBook> book;
  std::shared_ptr<UsageCoordinator> coordinator;
  std::shared_ptr<MoneyBudgetWatch> budgetWatch;
};

}  // namespace vimbrel
