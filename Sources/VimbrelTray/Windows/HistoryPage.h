// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Windows/Page.h"

class QLabel;
class QTableWidget;

namespace vimbrel::desktop {

class TimelineView;

/// When the machine was kept awake, why, and how it ended.
class HistoryPage final : public Page {
  Q_OBJECT

 public:
  explicit HistoryPage(DesktopModel& model);
  void refresh() override;
  void takeSituation() override;

 private:
  QLabel* total_;
  TimelineView* timeline_;
  QTableWidget* table_;
  bool wasHolding_ = false;
};

}  // namespace vimbrel::desktop
