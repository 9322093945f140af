// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Windows/Page.h"

class QScrollArea;
class QTableWidget;

namespace vimbrel::desktop {

class TimelineView;
class ToneLabel;

/// When the machine was kept awake, why, and how it ended.
class HistoryPage final : public Page {
  Q_OBJECT

 public:
  explicit HistoryPage(DesktopModel& model);
  void refresh() override;
  void takeSituation() override;

 private:
  ToneLabel* total_;
  QScrollArea* timelineArea_ = nullptr;
  TimelineView* timeline_;
  QTableWidget* table_;
  bool wasHolding_ = false;
};

}  // namespace vimbrel::desktop
