// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <QAbstractButton>

#include "Presentation/PopoverContent.h"
#include "Views/AvatarAnimation.h"

namespace vimbrel::desktop {

/// One agent family: a row that opens to show its hosts and sessions.
class FamilyRowView final : public QAbstractButton {
  Q_OBJECT

 public:
  explicit FamilyRowView(QWidget* parent = nullptr);
  void setRow(const FamilyRow& row);
  [[nodiscard]] AgentType agent() const { return row_.agent; }
  [[nodiscard]] QSize sizeHint() const override;

 protected:
  void paintEvent(QPaintEvent* event) override;
  void keyPressEvent(QKeyEvent* event) override;
  void enterEvent(QEnterEvent* event) override;
  void leaveEvent(QEvent* event) override;
  void showEvent(QShowEvent* event) override;
  void hideEvent(QHideEvent* event) override;
  void changeEvent(QEvent* event) override;

 private:
  /// Paints, or with no painter only measures; gives the height.
  int layOut(QPainter* painter) const;
  int paintHeading(QPainter* painter, int y) const;
  int paintBars(QPainter* painter, int y) const;
  int paintHosts(QPainter* painter, int y) const;
  [[nodiscard]] int lineHeight() const;
  [[nodiscard]] QRect column(int y, int height, int indent = 0) const;

  FamilyRow row_;
  AvatarAnimation avatar_;
};

}  // namespace vimbrel::desktop
