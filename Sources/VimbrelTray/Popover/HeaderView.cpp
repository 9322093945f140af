// SPDX-License-Identifier: Apache-2.0
#include "Popover/HeaderView.h"

#include <QGridLayout>
#include <QPainter>

#include "Presentation/TimeText.h"
#include "Views/AvatarPicture.h"
#include "Views/Painting.h"
#include "Views/ToneLabel.h"

namespace vimbrel::desktop {
namespace {

constexpr int avatarSide = 48;
constexpr int padding = 10;

}  // namespace

HeaderView::HeaderView(QWidget* parent)
    : QWidget(parent),
      avatar_([this] { update(); }),
      title_(new ToneLabel(Tone::plain, this)),
      elapsed_(new ToneLabel(Tone::plain, this)),
      reason_(new ToneLabel(Tone::dim, this)) {
  auto* layout = new QGridLayout(this);
  layout->setContentsMargins(padding + avatarSide + 12, padding, padding, padding);
  layout->setVerticalSpacing(2);
  title_->setScale(1.4, true);
  reason_->setWordWrap(true);
  layout->addWidget(title_, 0, 0);
  layout->addWidget(elapsed_, 0, 1, Qt::AlignTrailing | Qt::AlignVCenter);
  layout->addWidget(reason_, 1, 0, 1, 2);
  layout->setColumnStretch(0, 1);
  layout->setRowStretch(2, 1);
  setMinimumHeight(avatarSide + 2 * padding);
}

void HeaderView::setContent(const PopoverContent& content) {
  avatar_.setMood({.state = content.display.visualState,
                   .isAbsent = content.isAbsent,
                   .isPaused = content.display.isPaused});
  title_->setText(QString::fromStdString(content.title));
  title_->setTone(content.tone);
  reason_->setText(QString::fromStdString(content.reason));
  countsFrom_ = content.countsFrom;
  elapsed_->setVisible(countsFrom_.has_value());
}

void HeaderView::showElapsed(Instant now) {
  if (countsFrom_) elapsed_->setText(QString::fromStdString(runningText(now - *countsFrom_)));
}

void HeaderView::paintEvent(QPaintEvent* /*event*/) {
  QPainter painter(this);
  painter.drawImage(mirroredRect(QRect(padding, padding, avatarSide, avatarSide), *this),
                    avatarImage(avatar_.frame(), qRound(avatarSide * devicePixelRatioF())));
}

void HeaderView::showEvent(QShowEvent* /*event*/) {
  // The margin for the avatar stands on the side on which lines begin.
  const int wide = padding + avatarSide + 12;
  layout()->setContentsMargins(isRightToLeft() ? padding : wide, padding, isRightToLeft() ? wide : padding,
                               padding);
  avatar_.setVisible(true);
}

void HeaderView::hideEvent(QHideEvent* /*event*/) { avatar_.setVisible(false); }

}  // namespace vimbrel::desktop
