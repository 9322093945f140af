// SPDX-License-Identifier: Apache-2.0
#include "Views/Painting.h"

#include <QStyle>
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
  // As with every control: once the keyboard was used.
  if (row.hasFocus() && row.window()->testAttribute(Qt::WA_KeyboardFocusChange)) {
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
  // Aligned as the layout runs, but spelled as the text itself does.
  const auto layout = painter.layoutDirection();
  const auto absolute = QStyle::visualAlignment(layout, alignment) | Qt::AlignAbsolute;
  painter.setLayoutDirection(text.isRightToLeft() ? Qt::RightToLeft : Qt::LeftToRight);
  painter.drawText(area, static_cast<int>(Qt::AlignVCenter | absolute) | Qt::TextSingleLine,
                   painter.fontMetrics().elidedText(text, Qt::ElideRight, area.width()));
  painter.setLayoutDirection(layout);
}

}  // namespace vimbrel::desktop
