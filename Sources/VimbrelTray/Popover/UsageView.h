// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <QWidget>

#include "Presentation/UsageSummaries.h"

namespace vimbrel::desktop {

/// Today's tokens and cost above a bar for each of the last days, by agent.
class UsageView final : public QWidget {
  Q_OBJECT

 public:
  explicit UsageView(QWidget* parent = nullptr);
  void setChart(const UsageChart& chart);
  [[nodiscard]] QSize sizeHint() const override;

 protected:
  void paintEvent(QPaintEvent* event) override;
  bool event(QEvent* event) override;

 private:
  [[nodiscard]] QRect chartArea() const;
  [[nodiscard]] QRect barArea(std::size_t day) const;
  void paintDay(QPainter& painter, std::size_t index) const;
  void paintLegend(QPainter& painter, int y) const;
  UsageChart chart_;
};

}  // namespace vimbrel::desktop
