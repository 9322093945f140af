// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <QHeaderView>
#include <QStringList>
#include <QTableWidget>
#include <string>
#include <vector>

namespace vimbrel::desktop {

/// A table for reading: rows are selected whole, nothing is edited.
inline void prepareTable(QTableWidget& table, const QStringList& titles) {
  table.setColumnCount(static_cast<int>(titles.size()));
  table.setHorizontalHeaderLabels(titles);
  table.verticalHeader()->hide();
  table.setEditTriggers(QAbstractItemView::NoEditTriggers);
  table.setSelectionBehavior(QAbstractItemView::SelectRows);
  table.setShowGrid(false);
  table.setAlternatingRowColors(true);
  table.setTabKeyNavigation(false);
  table.horizontalHeader()->setDefaultAlignment(Qt::AlignLeading | Qt::AlignVCenter);
  table.horizontalHeader()->setHighlightSections(false);
}

/// A column of numbers, under a title that stands where they do.
inline void alignAsNumbers(QTableWidget& table, int column) {
  const auto alignment = Qt::AlignTrailing | Qt::AlignVCenter;
  if (auto* title = table.horizontalHeaderItem(column)) title->setTextAlignment(alignment);
  for (int row = 0; row < table.rowCount(); ++row) table.item(row, column)->setTextAlignment(alignment);
}

/// One row's texts; what is cut off is read in the tooltip.
inline void setCells(QTableWidget& table, int row, const std::vector<std::string>& texts) {
  for (int column = 0; column < static_cast<int>(texts.size()); ++column) {
    const auto text = QString::fromStdString(texts[static_cast<std::size_t>(column)]);
    auto* cell = new QTableWidgetItem(text);
    cell->setToolTip(text);
    table.setItem(row, column, cell);
  }
}

/// Every column as wide as its texts, and one that takes what is left.
inline void fitColumns(QTableWidget& table, int stretched) {
  table.resizeColumnsToContents();
  table.horizontalHeader()->setSectionResizeMode(stretched, QHeaderView::Stretch);
}

}  // namespace vimbrel::desktop
