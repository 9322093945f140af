// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/MoneyBudgets/MoneyBudgetWatch.h"

#include <algorithm>
#include <utility>

#include "AgentMonitoring/UsageImport/ImportIndex.h"

namespace vimbrel {

std::expected<std::vector<BudgetStanding>, std::string> standingsNow(const UsageStore& store,
                                                                     MoneyBudgetBook& book, Instant now,
                                                                     const SessionDirectories& heard) {
  const auto budgets = book.budgets();
  if (!budgets) return std::unexpected(budgets.error());
  if (budgets->empty()) return std::vector<BudgetStanding>{};
  // The index is a file of its own, read only when a budget asks for projects.
  std::optional<ImportIndex> index;
  if (std::ranges::any_of(*budgets,
                          [](const MoneyBudget& budget) { return budget.scope.project.has_value(); }))
    index.emplace();
  return budgetStandings(store, *budgets, now, CalendarZone(), [&](std::string_view session) {
    if (!index) return std::optional<std::string>();
    auto project = index->projectOf(session);
    return project ? project : heard.directoryOf(session);
  });
}

MoneyBudgetWatch::MoneyBudgetWatch(std::shared_ptr<UsageCoordinator> usage,
                                   std::shared_ptr<MoneyBudgetBook> book, const Clock& clock,
                                   std::shared_ptr<TaskQueue> mainQueue)
    : usage_(std::move(usage)), book_(std::move(book)), clock_(clock), mainQueue_(std::move(mainQueue)) {}

void MoneyBudgetWatch::start(std::function<void(const MoneyBudgetNotice&)> onNotice) {
  onNotice_ = std::move(onNotice);
  summaryChanged_ = usage_->todaySummary().subscribe([weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->check();
  });
}

void MoneyBudgetWatch::check() {
  if (std::exchange(isChecking_, true)) return;
  usage_->withStore([weak = weak_from_this(), usage = std::weak_ptr(usage_), book = book_, now = clock_.now(),
                     mainQueue = mainQueue_](UsageStore* store) {
    std::vector<MoneyBudgetNotice> due;
    // What cannot be read was logged when it was read first, and is told to whoever asks for budgets.
    if (const auto owner = usage.lock(); owner && store != nullptr) {
      if (const auto standings = standingsNow(*store, *book, now, owner->directories()))
        due = book->takeDueNotices(*standings);
    }
    mainQueue->post([weak, due = std::move(due)] {
      const auto self = weak.lock();
      if (!self) return;
      self->isChecking_ = false;
      for (const auto& notice : due) {
        if (self->onNotice_) self->onNotice_(notice);
      }
    });
  });
}

}  // namespace vimbrel
