// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <QPainter>
#include <QWidget>

namespace vimbrel::desktop {

/// A rectangle laid out left to right, mirrored within the widget where lines run from right to left.
[[nodiscard]] inline QRect mirroredRect(const QRect& area, const QWidget& widget) {
  if (!widget.isRightToLeft()) return area;
  return {widget.width() - area.x() - area.width(), area.y(), area.width(), area.height()};
}

/// What shows that a row is under the mouse or has the keyboard.
void paintRowBackground(QPainter& painter, const QWidget& row);

/// A thin bar filled to a share from 0 to 1, from the side on which lines begin.
void paintBar(QPainter& painter, const QRect& area, double share, const QColor& colour, bool isMirrored);

/// One line, cut with "…" where it does not fit.
void paintLine(QPainter& painter, const QRect& area, const QString& text, const QColor& colour,
               Qt::Alignment alignment = Qt::AlignLeading);

}  // namespace vimbrel::desktop
