// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <QPainterPath>
#include <QTimer>
#include <QWidget>
#include <optional>

#include "Domain/StatusSurface.h"
#include "Presentation/NotchPill.h"
#include "Views/AvatarAnimation.h"

namespace vimbrel::desktop {

/// The pill at the top centre of the screen: above other windows, never with the focus, and deaf to the mouse
/// except for the click that opens the popover. It needs a window system that lets windows be placed; where
/// there is none (Wayland), it stays away.
class NotchWindow final : public QWidget, public NotchStatusSurface {
  Q_OBJECT

 public:
  NotchWindow();
  /// The pill of the newest state, or none while the application is not running.
  void setPill(const std::optional<NotchPill>& pill, NotchMode mode);
  void render(const VimbrelDisplayState& state) override;
  /// Stays away while something better is on the screen.
  void setSuppressed(bool suppressed);

 Q_SIGNALS:
  void clicked();

 protected:
  void paintEvent(QPaintEvent* event) override;
  void mousePressEvent(QMouseEvent* event) override;
  void showEvent(QShowEvent* event) override;
  void hideEvent(QHideEvent* event) override;

 private:
  void adjust();
  void place();
  [[nodiscard]] QPainterPath outline() const;

  NotchSchedule schedule_{NotchMode::onChange};
  std::optional<NotchPill> pill_;
  AvatarAnimation avatar_;
  QTimer hideTimer_;
  bool isSuppressed_ = false;
};

}  // namespace vimbrel::desktop
