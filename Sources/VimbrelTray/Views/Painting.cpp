// SPDX-License-Identifier: Apache-2.0
#include "Views/Painting.h"

#include <algorithm>

#include "Views/Theme.h"

namespace vimbrel::desktop {

void paintRowBackground(QPainter& painter, const QWidget& row) {
  const auto& theme = Theme::current();
  const auto area = QRectF(row.rect()).adjusted(1, 1, -1, -1);
  painter.setPen(Qt::NoPen);
  if (row.underMouse() && row.isEnabled()) {
    painter.setBrush(theme.hover);
    painter.drawRoundedRect(area, 7, 7);
  }
  if (row.hasFocus()) {
    painter.setPen(QPen(theme.accent, 2));
    painter.setBrush(Qt::NoBrush);
    painter.drawRoundedRect(area, 7, 7);
  }
}

void paintBar(QPainter& painter, const QRect& area, double share, const QColor& colour, bool isMirrored) {
  const qreal radius = area.height() / 2.0;
  painter.setPen(Qt::NoPen);
  painter.setBrush(Theme::current().track);
  painter.drawRoundedRect(area, radius, radius);
  auto filled = QRectF(area);
  filled.setWidth(area.width() * std::clamp(share, 0.0, 1.0));
  if (filled.width() < 1) return;
  filled.setWidth(std::max<qreal>(filled.width(), area.height()));
  if (isMirrored) filled.moveRight(area.x() + area.width());
  painter.setBrush(colour);
  painter.drawRoundedRect(filled, radius, radius);
}

void paintLine(QPainter& painter, const QRect& area, const QString& text, const QColor& colour,
               Qt::Alignment alignment) {
  painter.setPen(colour);
  painter.drawText(area, static_cast<int>(Qt::AlignVCenter | alignment) | Qt::TextSingleLine,
                   painter.fontMetrics().elidedText(text, Qt::ElideRight, area.width()));
}

}  // namespace vimbrel::desktop
