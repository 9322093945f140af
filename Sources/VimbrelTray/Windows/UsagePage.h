// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Windows/Page.h"

class QComboBox;
class QLabel;
class QTableWidget;

namespace vimbrel::desktop {

/// Tokens and cost by day, week, month, model or project, and their export.
class UsagePage final : public Page {
  Q_OBJECT

 public:
  explicit UsagePage(DesktopModel& model);
  void refresh() override;

 private:
  void exportUsage();
  QComboBox* grouping_;
  QLabel* total_;
  QTableWidget* table_;
  QLabel* unpriced_;  // below the table, hidden when every model has a price
};

}  // namespace vimbrel::desktop
