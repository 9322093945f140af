// SPDX-License-Identifier: Apache-2.0
#include "Windows/IntroductionView.h"

#include <QBoxLayout>
#include <QPushButton>

#include "Views/AvatarView.h"
#include "Views/ToneLabel.h"
#include "Views/VimbrelStyle.h"

namespace vimbrel::desktop {

IntroductionView::IntroductionView(QWidget* parent) : Card(parent) {
  auto* avatar = new AvatarView(64, this);
  avatar->setMood({.state = VimbrelVisualState::completed});
  auto* title = new ToneLabel(Tone::plain, this, tr("Welcome to Vimbrel"));
  title->setScale(1.35, true);
  auto* done = new QPushButton(tr("Done"), this);
  done->setAccessibleName(tr("Finish the introduction"));
  VimbrelStyle::makePrimary(*done);
  connect(done, &QPushButton::clicked, this, &IntroductionView::finished);

  auto* texts = new QVBoxLayout;
  texts->setSpacing(4);
  texts->addWidget(title);
  const auto add = [&](Tone tone, const QString& text) {
    auto* label = new ToneLabel(tone, this, text);
    label->setWordWrap(true);
    texts->addWidget(label);
  };
  add(Tone::plain,
      tr("It keeps this machine awake while your coding agents work, and lets it sleep when they "
         "stop. Agents tell it through a hook."));
  texts->addSpacing(4);
  add(Tone::plain, tr("1.  Choose an agent below."));
  add(Tone::plain, tr("2.  Paste what is shown into its configuration; Vimbrel never writes there itself."));
  add(Tone::plain, tr("3.  Use the agent once: this page tells when it is heard."));

  auto* row = new QHBoxLayout(this);
  row->setContentsMargins(16, 14, 14, 14);
  row->setSpacing(16);
  row->addWidget(avatar, 0, Qt::AlignTop);
  row->addLayout(texts, 1);
  row->addWidget(done, 0, Qt::AlignTop);
}

}  // namespace vimbrel::desktop
