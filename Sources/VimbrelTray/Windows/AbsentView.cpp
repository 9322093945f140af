// SPDX-License-Identifier: Apache-2.0
#include "Windows/AbsentView.h"

#include <QBoxLayout>
#include <QPushButton>

#include "Presentation/PopoverContent.h"
#include "Support/Clock.h"
#include "Views/AvatarView.h"
#include "Views/ToneLabel.h"
#include "Views/VimbrelStyle.h"

namespace vimbrel::desktop {

AbsentView::AbsentView(DesktopModel& model)
    : model_(model),
      title_(new ToneLabel(Tone::plain, this)),
      reason_(new ToneLabel(Tone::dim, this)),
      problem_(new ToneLabel(Tone::warning, this)),
      start_(new QPushButton(this)) {
  auto* avatar = new AvatarView(96, this);
  avatar->setMood({.isAbsent = true});
  title_->setScale(1.5, true);
  VimbrelStyle::makePrimary(*start_);
  connect(start_, &QPushButton::clicked, this, [this] { model_.perform(MenuAction::startApplication); });

  auto* column = new QVBoxLayout(this);
  column->setSpacing(10);
  column->addStretch(2);
  column->addWidget(avatar, 0, Qt::AlignHCenter);
  for (auto* label : {title_, reason_, problem_}) {
    label->setAlignment(Qt::AlignCenter);
    label->setWordWrap(true);
    column->addWidget(label);
  }
  column->addSpacing(10);
  column->addWidget(start_, 0, Qt::AlignHCenter);
  column->addStretch(3);
  showProblem({});
  takeSituation();
}

void AbsentView::takeSituation() {
  if (model_.situation().state) return;
  const auto content = makePopoverContent(model_.situation(), SystemClock().now());
  title_->setText(QString::fromStdString(content.title));
  reason_->setText(QString::fromStdString(content.reason));
  start_->setText(QString::fromStdString(content.offerText));
  start_->setEnabled(content.offer == PopoverContent::Offer::start);
}

void AbsentView::showProblem(const QString& problem) {
  problem_->setText(problem);
  problem_->setVisible(!problem.isEmpty());
}

}  // namespace vimbrel::desktop
