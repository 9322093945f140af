// SPDX-License-Identifier: Apache-2.0
#include "Windows/TimelineView.h"

#include <QHelpEvent>
#include <QPainter>
#include <QToolTip>
#include <algorithm>

#include "Views/Painting.h"
#include "Views/Theme.h"

namespace vimbrel::desktop {

TimelineView::TimelineView(QWidget* parent) : QWidget(parent) {
  setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
}

void TimelineView::setTimeline(const EpisodeTimeline& timeline) {
  timeline_ = timeline;
  setAccessibleName(tr("Times of protection, by day"));
  QStringList days;
  for (const auto& day : timeline.days) {
    const auto amount = day.protection.empty() ? tr("none") : QString::fromStdString(day.protection);
    days << QString::fromStdString(day.name) + ": " + amount;
  }
  setAccessibleDescription(days.join("; "));
  updateGeometry();
  update();
}

int TimelineView::rowHeight() const { return fontMetrics().height() + 8; }

QSize TimelineView::sizeHint() const {
  return {420, (static_cast<int>(timeline_.days.size()) + 1) * rowHeight() + 4};
}

QRect TimelineView::lineArea(int day) const {
  const int name = fontMetrics().horizontalAdvance("Wed 30 Sep") + 16;
  const int amount = fontMetrics().horizontalAdvance("23 h 59 min") + 16;
  return {name, (day + 1) * rowHeight(), width() - name - amount, rowHeight()};
}

QRectF TimelineView::barArea(int day, const TimelineBar& bar) const {
  const auto line = lineArea(day);
  const double left = line.left() + bar.from * line.width();
  // Even a moment is seen.
  const double width = std::max((bar.to - bar.from) * line.width(), 2.0);
  const QRectF area(left, line.top() + 5, width, line.height() - 10);
  if (!isRightToLeft()) return area;
  return {this->width() - area.right(), area.top(), area.width(), area.height()};
}

void TimelineView::paintHours(QPainter& painter) const {
  const auto& theme = Theme::current();
  const auto line = lineArea(-1);
  for (int hour = 0; hour <= 24; hour += 6) {
    const int x = line.left() + line.width() * hour / 24;
    const auto text = QStringLiteral("%1").arg(hour, 2, 10, QLatin1Char('0'));
    const auto area = mirroredRect(QRect(x - 20, 0, 40, rowHeight()), *this);
    paintLine(painter, area, text, theme.dim, Qt::AlignHCenter);
  }
}

void TimelineView::paintEvent(QPaintEvent* /*event*/) {
  if (timeline_.days.empty()) return;
  const auto& theme = Theme::current();
  QPainter painter(this);
  painter.setRenderHint(QPainter::Antialiasing);
  paintHours(painter);
  for (int i = 0; i < static_cast<int>(timeline_.days.size()); ++i) {
    const auto& day = timeline_.days[static_cast<std::size_t>(i)];
    const auto line = lineArea(i);
    paintLine(painter, mirroredRect(QRect(4, line.top(), line.left() - 8, line.height()), *this),
              QString::fromStdString(day.name), theme.text);
    painter.setPen(Qt::NoPen);
    painter.setBrush(theme.track);
    painter.drawRoundedRect(mirroredRect(line.adjusted(0, 7, 0, -7), *this), 3, 3);
    for (const auto& bar : day.bars) {
      const auto area = barArea(i, bar);
      painter.setPen(Qt::NoPen);
      painter.setBrush(theme.of(bar.tone));
      painter.drawRoundedRect(area, 2, 2);
      if (!bar.isDeep) continue;
      // The lid's cover: a line through the bar.
      painter.setBrush(theme.window);
      painter.drawRect(
          QRectF(area.left() + 2, area.center().y() - 0.75, std::max(area.width() - 4, 0.0), 1.5));
    }
    paintLine(
        painter,
        mirroredRect(QRect(line.right() + 8, line.top(), width() - line.right() - 12, line.height()), *this),
        QString::fromStdString(day.protection), theme.dim, Qt::AlignTrailing);
  }
}

bool TimelineView::event(QEvent* event) {
  if (event->type() != QEvent::ToolTip) return QWidget::event(event);
  const auto* help = static_cast<QHelpEvent*>(event);
  for (int i = 0; i < static_cast<int>(timeline_.days.size()); ++i) {
    for (const auto& bar : timeline_.days[static_cast<std::size_t>(i)].bars) {
      if (barArea(i, bar).adjusted(-2, -4, 2, 4).contains(help->pos())) {
        QToolTip::showText(help->globalPos(), QString::fromStdString(bar.label), this);
        return true;
      }
    }
  }
  QToolTip::hideText();
  return true;
}

}  // namespace vimbrel::desktop
