// SPDX-License-Identifier: Apache-2.0
#include "Windows/UsagePage.h"

#include <QBoxLayout>
#include <QComboBox>
#include <QLabel>
#include <QPushButton>
#include <QTableWidget>
#include <nlohmann/json.hpp>

#include "Domain/BudgetIntelligence.h"
#include "Presentation/JsonFields.h"
#include "Presentation/UsageSummaries.h"
#include "Windows/SaveFile.h"
#include "Windows/Tables.h"

namespace vimbrel::desktop {

UsagePage::UsagePage(DesktopModel& model)
    : Page(model),
      grouping_(new QComboBox(this)),
      total_(new QLabel(this)),
      table_(new QTableWidget(this)),
      unpriced_(new QLabel(this)) {
  auto* layout = new QVBoxLayout(this);
  auto* head = new QHBoxLayout;
  auto* label = new QLabel(tr("Show by"), this);
  label->setBuddy(grouping_);
  grouping_->setAccessibleName(tr("Show usage by"));
  grouping_->addItem(tr("Day"), "daily");
  grouping_->addItem(tr("Week"), "weekly");
  grouping_->addItem(tr("Month"), "monthly");
  grouping_->addItem(tr("Model"), "models");
  grouping_->addItem(tr("Project"), "projects");
  grouping_->addItem(tr("Session"), "sessions");
  grouping_->addItem(tr("Billing window"), "blocks");
  auto* save = new QPushButton(tr("Export…"), this);
  save->setToolTip(tr("Totals and sessions only: nothing that tells what was worked on"));
  head->addWidget(label);
  head->addWidget(grouping_);
  head->addSpacing(12);
  head->addWidget(total_);
  head->addStretch(1);
  head->addWidget(save);
  layout->addLayout(head);
  prepareTable(*table_, {tr("Time"), tr("Agents"), tr("Tokens"), tr("Input"), tr("Output"), tr("Cached"),
                         tr("Cost"), tr("Sessions")});
  table_->setAccessibleName(tr("Usage"));
  layout->addWidget(table_);
  // Names of models come from outside.
  unpriced_->setTextFormat(Qt::PlainText);
  unpriced_->setWordWrap(true);
  unpriced_->hide();
  layout->addWidget(unpriced_);
  connect(grouping_, &QComboBox::currentIndexChanged, this, &UsagePage::refresh);
  connect(save, &QPushButton::clicked, this, &UsagePage::exportUsage);
}

void UsagePage::refresh() {
  const auto by = grouping_->currentData().toString();
  ask("usage.report", {{"by", by.toStdString()}}, [this, by](const nlohmann::json& result) {
    // The user may have chosen another one meanwhile.
    if (by != grouping_->currentData().toString()) return;
    const bool isByTime = by == "daily" || by == "weekly" || by == "monthly" || by == "blocks";
    const auto usage = makeUsageTable(result, by == "blocks" ? UsageKeys::moments
                                              : isByTime     ? UsageKeys::days
                                                             : UsageKeys::names);
    total_->setText(usage.rows.empty()
                        ? tr("No usage has been recorded yet.")
                        : tr("%1 tokens, %2 in all")
                              .arg(QString::fromStdString(formatTokenCompact(usage.total.tokens)),
                                   QString::fromStdString(costText(usage.total.costUSD))));
    auto* name = table_->horizontalHeaderItem(0);
    name->setText(isByTime ? tr("Time") : grouping_->currentText());
    table_->setRowCount(0);
    for (const auto& each : usage.rows) {
      const int row = table_->rowCount();
      table_->insertRow(row);
      setCells(*table_, row,
               {each.name, each.agents, formatTokenCompact(each.tokens), formatTokenCompact(each.input),
                formatTokenCompact(each.output), formatTokenCompact(each.cached), costText(each.costUSD),
                std::to_string(each.sessions)});
    }
    for (int column = 2; column < table_->columnCount(); ++column) alignAsNumbers(*table_, column);
    fitColumns(*table_, isByTime ? 1 : 0);
    unpriced_->setText(QString::fromStdString(usage.unpriced));
    unpriced_->setVisible(!usage.unpriced.empty());
  });
}

void UsagePage::exportUsage() {
  ask("usage.export", nlohmann::json::object(), [this](const nlohmann::json& result) {
    saveText(*this, tr("Export Usage"), "vimbrel-usage.json",
             QString::fromStdString(textOf(result, "document")),
             [this](const QString& reason) { Q_EMIT problem(reason); });
  });
}

}  // namespace vimbrel::desktop
