// SPDX-License-Identifier: Apache-2.0
#include "Popover/PowerView.h"

#include <QPainter>

#include "Views/Painting.h"
#include "Views/Theme.h"

namespace vimbrel::desktop {
namespace {

constexpr int padding = 10;
constexpr int batteryWidth = 34;

QString text(const std::string& value) { return QString::fromStdString(value); }

}  // namespace

PowerView::PowerView(QWidget* parent) : QWidget(parent) {
  setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
}

void PowerView::setLine(const PowerLine& line) {
  if (line == line_) return;
  line_ = line;
  QStringList parts{text(line.power), text(line.heat), text(line.lid)};
  if (line.batteryPercent) parts.insert(1, tr("may sleep below %1 %").arg(line.floorPercent));
  if (!line.lidRemedy.empty()) parts << text(line.lidRemedy);
  setAccessibleName(parts.join(", "));
  // What does not fit is read here.
  setToolTip(parts.join("\n"));
  updateGeometry();
  update();
}

QSize PowerView::sizeHint() const {
  const int lines = line_.lidRemedy.empty() ? 2 : 3;
  return {320, lines * (fontMetrics().height() + 4) + 12};
}

/// The mark on the outline shows the floor: what lies below it is not used for agents.
void PowerView::paintBattery(QPainter& painter, const QRect& area) const {
  const auto& theme = Theme::current();
  const bool isMirrored = isRightToLeft();
  const auto body = area.adjusted(isMirrored ? 3 : 0, 0, isMirrored ? 0 : -3, 0);
  painter.setPen(QPen(theme.dim, 1));
  painter.setBrush(Qt::NoBrush);
  painter.drawRoundedRect(QRectF(body).adjusted(0.5, 0.5, -0.5, -0.5), 3, 3);
  painter.setPen(Qt::NoPen);
  painter.setBrush(theme.dim);
  const int knob = area.height() / 2;
  painter.drawRect(isMirrored ? area.left() : body.right() + 1, area.center().y() - knob / 2 + 1, 2, knob);
  const QRect inside = body.adjusted(3, 3, -3, -3);
  const auto at = [&](int percent) { return inside.width() * percent / 100; };
  QRect charge = inside;
  charge.setWidth(std::max(at(*line_.batteryPercent), 1));
  if (isMirrored) charge.moveRight(inside.right());
  painter.setBrush(line_.powerTone == Tone::plain ? theme.good : theme.of(line_.powerTone));
  painter.drawRect(charge);
  const int mark =
      isMirrored ? inside.right() - at(line_.floorPercent) : inside.left() + at(line_.floorPercent);
  painter.setBrush(theme.text);
  painter.drawRect(mark, body.top() - 2, 2, body.height() + 4);
}

void PowerView::paintEvent(QPaintEvent* /*event*/) {
  const auto& theme = Theme::current();
  QPainter painter(this);
  painter.setRenderHint(QPainter::Antialiasing);
  const int height = fontMetrics().height() + 4;
  int y = 6;
  const auto row = QRect(padding, y, width() - 2 * padding, height);
  const int batteryHeight = std::max(fontMetrics().ascent(), 12);
  int left = 0;
  if (line_.batteryPercent) {
    paintBattery(painter, mirroredRect(QRect(row.left(), y + (height - batteryHeight) / 2, batteryWidth,
                                             batteryHeight),
                                       *this));
    left = batteryWidth + 8;
  }
  paintLine(painter, mirroredRect(row.adjusted(left, 0, 0, 0), *this), text(line_.power),
            theme.of(line_.powerTone));
  y += height;
  const auto heat = text(line_.heat);
  const auto separator = QStringLiteral("  ·  ");
  const int heatWidth = fontMetrics().horizontalAdvance(heat);
  const int separatorWidth = fontMetrics().horizontalAdvance(separator);
  auto second = row;
  second.moveTop(y);
  paintLine(painter, mirroredRect(QRect(second.left(), y, heatWidth + 1, height), *this), heat,
            theme.of(line_.heatTone));
  paintLine(painter, mirroredRect(QRect(second.left() + heatWidth, y, separatorWidth + 1, height), *this),
            separator, theme.dim);
  paintLine(painter, mirroredRect(second.adjusted(heatWidth + separatorWidth, 0, 0, 0), *this),
            text(line_.lid), theme.of(line_.lidTone));
  if (line_.lidRemedy.empty()) return;
  second.moveTop(y + height);
  paintLine(painter, mirroredRect(second, *this), text(line_.lidRemedy), theme.dim);
}

}  // namespace vimbrel::desktop
