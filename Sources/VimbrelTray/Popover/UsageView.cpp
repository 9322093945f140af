// SPDX-License-Identifier: Apache-2.0
#include "Popover/UsageView.h"

#include <QHelpEvent>
#include <QPainter>
#include <QPainterPath>
#include <QToolTip>
#include <algorithm>
#include <utility>
#include <vector>

#include "Say.h"
#include "Views/Painting.h"
#include "Views/Theme.h"

namespace vimbrel::desktop {
namespace {

constexpr int padding = 10;
constexpr int chartHeight = 54;

}  // namespace

UsageView::UsageView(QWidget* parent) : QWidget(parent) {
  setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
}

void UsageView::setChart(const UsageChart& chart) {
  if (chart == chart_) return;
  chart_ = chart;
  setAccessibleName(QString::fromStdString(chart.today));
  QStringList days;
  for (const auto& day : chart.days) days << QString::fromStdString(day.label);
  setAccessibleDescription(days.join("; "));
  updateGeometry();
  update();
}

QSize UsageView::sizeHint() const {
  const int line = fontMetrics().height() + 4;
  if (chart_.mostTokens == 0) return {320, line + 10};
  return {320, line + chartHeight + line + 16};
}

QRect UsageView::chartArea() const {
  return {padding, fontMetrics().height() + 10, width() - 2 * padding, chartHeight};
}

QRect UsageView::barArea(std::size_t day) const {
  const auto area = chartArea();
  const auto count = static_cast<int>(chart_.days.size());
  const int left = area.left() + area.width() * static_cast<int>(day) / count;
  const int right = area.left() + area.width() * (static_cast<int>(day) + 1) / count;
  return mirroredRect(QRect(left + 2, area.top(), right - left - 4, area.height()), *this);
}

void UsageView::paintLegend(QPainter& painter, int y) const {
  const auto& theme = Theme::current();
  const int height = fontMetrics().height() + 2;
  int x = padding;
  for (const auto agent : chart_.agents) {
    const auto name = QString::fromStdString(retell(displayName(agent)));
    const int width = 12 + fontMetrics().horizontalAdvance(name) + 12;
    if (x + width > this->width() - padding + 12) break;
    painter.setPen(Qt::NoPen);
    painter.setBrush(theme.of(agent));
    painter.drawEllipse(mirroredRect(QRect(x, y + height / 2 - 4, 8, 8), *this));
    paintLine(painter, mirroredRect(QRect(x + 12, y, width - 12, height), *this), name, theme.dim);
    x += width;
  }
}

/// Agents on top of each other, in a bar with a round top; a day without use has only its foot.
void UsageView::paintDay(QPainter& painter, std::size_t index) const {
  const auto& theme = Theme::current();
  const auto area = barArea(index);
  const auto& day = chart_.days[index];
  painter.setPen(Qt::NoPen);
  painter.setBrush(theme.track);
  painter.drawRect(area.left(), area.bottom(), area.width(), 1);
  double height = 0;
  std::vector<std::pair<AgentType, double>> parts;
  for (const auto& [agent, tokens] : day.tokens) {
    if (tokens <= 0) continue;
    const double share = static_cast<double>(tokens) / static_cast<double>(chart_.mostTokens);
    // What was used is seen, however little beside the largest day.
    parts.emplace_back(agent, std::max(share * area.height(), 2.0));
    height += parts.back().second;
  }
  if (parts.empty()) return;
  const double round = std::min(3.0, height);
  QPainterPath bar;
  bar.addRoundedRect(QRectF(area.left(), area.bottom() - height, area.width(), height + round), round, round);
  painter.save();
  painter.setClipRect(area.adjusted(0, -2, 0, 0));
  double bottom = area.bottom();
  for (const auto& [agent, part] : parts) {
    QPainterPath box;
    box.addRect(QRectF(area.left(), bottom - part, area.width(), part));
    painter.fillPath(bar.intersected(box), theme.of(agent));
    bottom -= part;
  }
  painter.restore();
}

void UsageView::paintEvent(QPaintEvent* /*event*/) {
  const auto& theme = Theme::current();
  QPainter painter(this);
  painter.setRenderHint(QPainter::Antialiasing);
  const auto title = QRect(padding, 4, width() - 2 * padding, fontMetrics().height() + 4);
  paintLine(painter, title, QString::fromStdString(chart_.today), theme.text);
  if (chart_.mostTokens == 0) return;
  for (std::size_t i = 0; i < chart_.days.size(); ++i) paintDay(painter, i);
  paintLegend(painter, chartArea().bottom() + 4);
}

bool UsageView::event(QEvent* event) {
  if (event->type() == QEvent::ToolTip) {
    const auto* help = static_cast<QHelpEvent*>(event);
    for (std::size_t i = 0; i < chart_.days.size(); ++i) {
      if (barArea(i).adjusted(-2, 0, 2, 0).contains(help->pos())) {
        QToolTip::showText(help->globalPos(), QString::fromStdString(chart_.days[i].label), this);
        return true;
      }
    }
    QToolTip::hideText();
    return true;
  }
  return QWidget::event(event);
}

}  // namespace vimbrel::desktop
