// SPDX-License-Identifier: Apache-2.0
#include "Views/NotchWindow.h"

#include <QGuiApplication>
#include <QMouseEvent>
#include <QPainter>
#include <QPainterPath>
#include <QScreen>
#include <algorithm>

#include "Support/Clock.h"
#include "Views/AvatarPicture.h"
#include "Views/WindowSystem.h"

namespace vimbrel::desktop {
namespace {

Instant now() { return SystemClock().now(); }

}  // namespace

NotchWindow::NotchWindow()
    : QWidget(nullptr, Qt::ToolTip | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint |
                           Qt::WindowDoesNotAcceptFocus),
      avatar_([this] { update(); }) {
  setAttribute(Qt::WA_ShowWithoutActivating);
  if (isComposited()) setAttribute(Qt::WA_TranslucentBackground);
  setFocusPolicy(Qt::NoFocus);
  setCursor(Qt::PointingHandCursor);
  setWindowTitle(tr("Vimbrel status"));
  hideTimer_.setSingleShot(true);
  connect(&hideTimer_, &QTimer::timeout, this, &NotchWindow::adjust);
}

void NotchWindow::setPill(const std::optional<NotchPill>& pill, NotchMode mode) {
  schedule_.setMode(mode);
  schedule_.update(pill, now());
  if (pill && pill != pill_) {
    pill_ = pill;
    setAccessibleName(QString::fromStdString(pill->text));
    place();
    update();
  }
  adjust();
}

void NotchWindow::render(const VimbrelDisplayState& state) {
  avatar_.setMood({.state = state.visualState, .isPaused = state.isPaused});
}

void NotchWindow::setSuppressed(bool suppressed) {
  isSuppressed_ = suppressed;
  adjust();
}

void NotchWindow::adjust() {
  const bool isWanted = pill_ && !isSuppressed_ && canPlaceWindows() && schedule_.isShown(now());
  if (isWanted && !isVisible()) {
    place();
    show();
  }
  if (!isWanted && isVisible()) hide();
  if (const auto next = schedule_.nextChange(now())) {
    hideTimer_.start(static_cast<int>((*next - now()).count() * 1000) + 10);
  } else {
    hideTimer_.stop();
  }
}

void NotchWindow::place() {
  if (!pill_) return;
  const auto metrics = fontMetrics();
  const int height = std::max(metrics.height() + 14, 36);
  const int width = metrics.horizontalAdvance(QString::fromStdString(pill_->text)) + height + 24;
  const auto* screen = QGuiApplication::primaryScreen();
  if (screen == nullptr) return;
  const auto area = screen->geometry();
  const int fitting = std::min(width, area.width() - 40);
  setGeometry(area.center().x() - fitting / 2, area.top(), fitting, height);
  if (!isComposited()) setMask(QRegion(outline().toFillPolygon().toPolygon()));
}

/// It hangs from the screen's edge, so its top corners are square.
QPainterPath NotchWindow::outline() const {
  QPainterPath shape;
  const QRectF area(rect());
  const qreal radius = area.height() * 0.45;
  shape.addRoundedRect(area.adjusted(0, -radius, 0, 0), radius, radius);
  return shape;
}

void NotchWindow::paintEvent(QPaintEvent* /*event*/) {
  if (!pill_) return;
  QPainter painter(this);
  painter.setRenderHint(QPainter::Antialiasing);
  // Black in both themes, as the edge of a screen is.
  painter.fillPath(outline(), QColor(16, 18, 22, 240));
  const int side = 24;
  const int edge = (height() - side) / 2;
  const bool isMirrored = isRightToLeft();
  const QRect avatarArea(isMirrored ? width() - edge - 6 - side : edge + 6, edge, side, side);
  painter.drawImage(avatarArea, avatarImage(avatar_.frame(), qRound(side * devicePixelRatioF())));
  const int begin = edge + side + 14;
  const QRect textArea = isMirrored ? rect().adjusted(14, 0, -begin, 0) : rect().adjusted(begin, 0, -14, 0);
  painter.setPen(Qt::white);
  painter.drawText(
      textArea, Qt::AlignVCenter | Qt::AlignLeading,
      fontMetrics().elidedText(QString::fromStdString(pill_->text), Qt::ElideRight, textArea.width()));
}

void NotchWindow::mousePressEvent(QMouseEvent* event) {
  if (event->button() == Qt::LeftButton) Q_EMIT clicked();
}

void NotchWindow::showEvent(QShowEvent* /*event*/) { avatar_.setVisible(true); }
void NotchWindow::hideEvent(QHideEvent* /*event*/) { avatar_.setVisible(false); }

}  // namespace vimbrel::desktop
