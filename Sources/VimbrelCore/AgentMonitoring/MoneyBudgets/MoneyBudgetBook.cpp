// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/MoneyBudgets/MoneyBudgetBook.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "Support/AtomicFile.h"
#include "Support/Directories.h"
#include "Support/DollarText.h"
#include "Support/OwnFile.h"
#include "Support/Sentence.h"
#include "Support/StrictJson.h"

namespace vimbrel {

using nlohmann::json;

namespace {

std::int64_t wholeStart(const BudgetStanding& standing) {
  return static_cast<std::int64_t>(std::floor(unixSeconds(standing.periodStart)));
}

}  // namespace

std::string MoneyBudgetNotice::title() const {
  return percent >= 100 ? sentence("Budget spent") : sentence("Budget %1 % spent", {std::to_string(percent)});
}

std::string MoneyBudgetNotice::message() const {
  return sentence("%1 of the budget of %3 (%2) is spent; at this pace it will be %4",
                  {dollarText(standing.spentUSD), describe(standing.budget.scope),
                   dollarText(standing.budget.amountUSD), dollarText(standing.forecastUSD)});
}

std::string MoneyBudgetBook::defaultPath() {
  return directories::configuration() + "/com.vimbrel.app/budgets.json";
}

MoneyBudgetBook::MoneyBudgetBook(std::string path) : path_(std::move(path)) {
  const std::lock_guard guard(lock_);
  readable_ = readLocked();
  if (!readable_) logger_.error("%s", readable_.error().c_str());
}

std::expected<void, std::string> MoneyBudgetBook::readLocked() {
  const auto unusable = [&](const std::string& why) {
    return std::unexpected(sentence("the budgets in %1 cannot be used: %2", {path_, why}));
  };
  auto text = readFile(path_);
  if (!text && text.error().code != ENOENT) return unusable(text.error().text());
  auto contents = text ? *std::move(text) : std::string();
  if (contents == text_ && readable_) return {};
  text_ = std::move(contents);
  if (text_.empty()) {
    budgets_.clear();
    said_.clear();
    return {};
  }
  const auto document = parseJson(text_);
  if (!document || !document->is_object()) return unusable(sentence("it is not a JSON object"));
  std::vector<MoneyBudget> budgets;
  const auto& listed = document->contains("budgets") ? (*document)["budgets"] : json::array();
  if (!listed.is_array()) return unusable("\"budgets\" is not a list");
  for (const auto& each : listed) {
    auto budget = moneyBudgetFromJson(each);
    if (!budget) return unusable(budget.error());
    std::erase_if(budgets, [&](const MoneyBudget& known) { return known.scope == budget->scope; });
    budgets.push_back(*std::move(budget));
  }
  budgets_ = std::move(budgets);
  said_.clear();
  // What was said is our own note: where it cannot be read, something may be said twice.
  if (const auto said = document->find("announced"); said != document->end() && said->is_object()) {
    for (const auto& [scope, note] : said->items()) {
      StrictJsonObject fields(note, "announced");
      const Said read{fields.integer("periodStart"), static_cast<int>(fields.integer("percent") % 1000)};
      if (!fields.error()) said_[scope] = read;
    }
  }
  return {};
}

std::expected<void, std::string> MoneyBudgetBook::writeLocked() {
  json document{{"budgets", json::array()}, {"announced", json::object()}};
  for (const auto& budget : budgets_) document["budgets"].push_back(toJson(budget));
  for (const auto& [scope, said] : said_) {
    document["announced"][scope] = {{"periodStart", said.periodStart}, {"percent", said.percent}};
  }
  auto text = document.dump(2) + "\n";
  if (const auto written = replaceOwnFile(path_, text, 0600, Durability::machine); !written) {
    return std::unexpected(sentence("the budgets were not saved: %1", {written.error().text()}));
  }
  text_ = std::move(text);
  return {};
}

std::expected<std::vector<MoneyBudget>, std::string> MoneyBudgetBook::budgets() {
  const std::lock_guard guard(lock_);
  readable_ = readLocked();
  if (!readable_) return std::unexpected(readable_.error());
  return budgets_;
}

std::expected<void, std::string> MoneyBudgetBook::set(const MoneyBudget& budget) {
  const std::lock_guard guard(lock_);
  readable_ = readLocked();
  if (!readable_) return readable_;
  const auto before = budgets_;
  const auto saidBefore = said_;
  const auto known = std::ranges::find(budgets_, budget.scope, &MoneyBudget::scope);
  if (known == budgets_.end()) {
    budgets_.push_back(budget);
  } else {
    *known = budget;
  }
  // Another amount is another budget: its thresholds have not been announced.
  said_.erase(describe(budget.scope));
  auto written = writeLocked();
  if (!written) {
    budgets_ = before;
    said_ = saidBefore;
  }
  return written;
}

std::expected<bool, std::string> MoneyBudgetBook::remove(const BudgetScope& scope) {
  const std::lock_guard guard(lock_);
  readable_ = readLocked();
  if (!readable_) return std::unexpected(readable_.error());
  const auto before = budgets_;
  if (std::erase_if(budgets_, [&](const MoneyBudget& budget) { return budget.scope == scope; }) == 0)
    return false;
  said_.erase(describe(scope));
  if (auto written = writeLocked(); !written) {
    budgets_ = before;
    return std::unexpected(written.error());
  }
  return true;
}

std::vector<MoneyBudgetNotice> MoneyBudgetBook::takeDueNotices(const std::vector<BudgetStanding>& standings) {
  const std::lock_guard guard(lock_);
  std::vector<MoneyBudgetNotice> due;
  for (const auto& standing : standings) {
    const int percent = standing.usedPercent() >= 100 ? 100 : standing.usedPercent() >= 80 ? 80 : 0;
    if (percent == 0) continue;
    auto& said = said_[describe(standing.budget.scope)];
    if (said.periodStart == wholeStart(standing) && said.percent >= percent) continue;
    said = {wholeStart(standing), percent};
    due.push_back({standing, percent});
  }
  if (!due.empty() && readable_) {
    if (const auto written = writeLocked(); !written) logger_.error("%s", written.error().c_str());
  }
  return due;
}

}  // namespace vimbrel
