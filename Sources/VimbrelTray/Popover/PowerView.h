// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <QWidget>

#include "Presentation/PopoverContent.h"

namespace vimbrel::desktop {

/// Battery with the mark of its floor, heat, and the lid with its cover.
class PowerView final : public QWidget {
  Q_OBJECT

 public:
  explicit PowerView(QWidget* parent = nullptr);
  void setLine(const PowerLine& line);
  [[nodiscard]] QSize sizeHint() const override;

 protected:
  void paintEvent(QPaintEvent* event) override;

 private:
  void paintBattery(QPainter& painter, const QRect& area) const;
  PowerLine line_;
};

}  // namespace vimbrel::desktop
