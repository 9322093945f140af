// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <QPainter>
#include <QWidget>

#include "Views/Theme.h"

namespace vimbrel::desktop {

/// A raised, rounded surface on which things that belong together stand.
class Card : public QWidget {
  Q_OBJECT

 public:
  using QWidget::QWidget;

 protected:
  void paintEvent(QPaintEvent* /*event*/) override {
    const auto& theme = Theme::current();
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(QPen(theme.border, 1));
    painter.setBrush(theme.card);
    painter.drawRoundedRect(QRectF(rect()).adjusted(0.5, 0.5, -0.5, -0.5), 8, 8);
  }
};

/// A line between two things on a card or in a column.
class Divider final : public QWidget {
  Q_OBJECT

 public:
  explicit Divider(QWidget* parent) : QWidget(parent) { setFixedHeight(1); }

 protected:
  void paintEvent(QPaintEvent* /*event*/) override {
    QPainter(this).fillRect(rect(), Theme::current().border);
  }
};

}  // namespace vimbrel::desktop
