// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <QWidget>

#include "Views/AvatarAnimation.h"

namespace vimbrel::desktop {

/// The avatar at a size of its own; it moves only while it is seen.
class AvatarView final : public QWidget {
  Q_OBJECT

 public:
  /// `side` is in logical pixels; multiples of 16 are crisp.
  explicit AvatarView(int side, QWidget* parent = nullptr);
  void setMood(const AvatarMood& mood) { avatar_.setMood(mood); }

 protected:
  void paintEvent(QPaintEvent* event) override;
  void showEvent(QShowEvent* /*event*/) override { avatar_.setVisible(true); }
  void hideEvent(QHideEvent* /*event*/) override { avatar_.setVisible(false); }

 private:
  AvatarAnimation avatar_;
};

}  // namespace vimbrel::desktop
