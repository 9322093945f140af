// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <QWidget>

#include "Presentation/EpisodeTimeline.h"

namespace vimbrel::desktop {

/// A line for each day with the times of protection on it.
class TimelineView final : public QWidget {
  Q_OBJECT

 public:
  explicit TimelineView(QWidget* parent = nullptr);
  void setTimeline(const EpisodeTimeline& timeline);
  [[nodiscard]] QSize sizeHint() const override;

 protected:
  void paintEvent(QPaintEvent* event) override;
  bool event(QEvent* event) override;

 private:
  [[nodiscard]] int rowHeight() const;
  [[nodiscard]] QRect lineArea(int day) const;
  [[nodiscard]] QRectF barArea(int day, const TimelineBar& bar) const;
  void paintHours(QPainter& painter) const;
  EpisodeTimeline timeline_;
};

}  // namespace vimbrel::desktop
