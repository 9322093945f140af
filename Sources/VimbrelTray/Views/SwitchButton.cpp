// SPDX-License-Identifier: Apache-2.0
#include "Views/SwitchButton.h"

#include <QPainter>

#include "Views/Painting.h"
#include "Views/Theme.h"

namespace vimbrel::desktop {

SwitchButton::SwitchButton(const QString& text, QWidget* parent) : QAbstractButton(parent) {
  setText(text);
  setAccessibleName(text);
  setCheckable(true);
  setFocusPolicy(Qt::StrongFocus);
}

QSize SwitchButton::sizeHint() const {
  const auto metrics = fontMetrics();
  const int height = metrics.height() + 14;
  if (text().isEmpty()) return {2 * metrics.height() + 12, height};
  return {metrics.horizontalAdvance(text()) + 80, height};
}

void SwitchButton::nextCheckState() { Q_EMIT changeRequested(!isChecked()); }

void SwitchButton::enterEvent(QEnterEvent* /*event*/) { update(); }
void SwitchButton::leaveEvent(QEvent* /*event*/) { update(); }

void SwitchButton::paintEvent(QPaintEvent* /*event*/) {
  const auto& theme = Theme::current();
  QPainter painter(this);
  painter.setRenderHint(QPainter::Antialiasing);
  paintRowBackground(painter, *this);
  const int height = fontMetrics().height();
  const QSize trackSize(height * 2, height + 2);
  const int margin = text().isEmpty() ? 6 : 10;
  const auto area = rect().adjusted(margin, 0, -margin, 0);
  const auto track = mirroredRect(
      QRect(QPoint(area.right() - trackSize.width() + 1, (this->height() - trackSize.height()) / 2),
            trackSize),
      *this);
  painter.setPen(isEnabled() ? theme.text : theme.dim);
  const auto textArea =
      mirroredRect(QRect(area.left(), 0, area.width() - trackSize.width() - 12, this->height()), *this);
  painter.drawText(textArea, Qt::AlignVCenter | Qt::AlignLeading,
                   fontMetrics().elidedText(text(), Qt::ElideRight, textArea.width()));
  const qreal radius = track.height() / 2.0;
  painter.setPen(QPen(isChecked() ? theme.accent : theme.dim, 1));
  painter.setBrush(isChecked() ? theme.accent : theme.track);
  painter.drawRoundedRect(QRectF(track).adjusted(0.5, 0.5, -0.5, -0.5), radius, radius);
  // The knob stands at the side on which the language's lines end when it is on.
  const bool isAtRight = isChecked() != isRightToLeft();
  const int knob = track.height() - 6;
  painter.setPen(Qt::NoPen);
  painter.setBrush(isChecked() ? theme.onAccent : theme.dim);
  painter.drawEllipse(isAtRight ? track.right() - knob - 2 : track.left() + 3, track.top() + 3, knob, knob);
}

}  // namespace vimbrel::desktop
