// SPDX-License-Identifier: Apache-2.0
#include "Views/AvatarView.h"

#include <QPainter>

#include "Views/AvatarPicture.h"

namespace vimbrel::desktop {

AvatarView::AvatarView(int side, QWidget* parent) : QWidget(parent), avatar_([this] { update(); }) {
  setFixedSize(side, side);
}

void AvatarView::paintEvent(QPaintEvent* /*event*/) {
  QPainter(this).drawImage(rect(), avatarImage(avatar_.frame(), qRound(width() * devicePixelRatioF())));
}

}  // namespace vimbrel::desktop
