// SPDX-License-Identifier: Apache-2.0
#include "Views/ToneLabel.h"

#include <QEvent>

#include "Views/Theme.h"

namespace vimbrel::desktop {

ToneLabel::ToneLabel(Tone tone, QWidget* parent, const QString& text) : QLabel(text, parent), tone_(tone) {
  setTextFormat(Qt::PlainText);
  applyColour();
  align();
}

void ToneLabel::setTone(Tone tone) {
  tone_ = tone;
  applyColour();
}

void ToneLabel::setScale(double factor, bool isBold) {
  auto changed = font();
  changed.setPointSizeF(changed.pointSizeF() * factor);
  changed.setBold(isBold);
  setFont(changed);
}

void ToneLabel::applyColour() {
  const auto colour = Theme::current().of(tone_);
  if (palette().color(QPalette::WindowText) == colour) return;
  auto own = palette();
  for (const auto group : {QPalette::Active, QPalette::Inactive})
    own.setColor(group, QPalette::WindowText, colour);
  setPalette(own);
}

/// Labels by themselves stand where the text's own direction begins, and an English sentence of the
/// application would stand alone on the wrong side.
void ToneLabel::align() {
  if (alignment() & Qt::AlignHCenter) return;
  setAlignment((isRightToLeft() ? Qt::AlignRight : Qt::AlignLeft) | Qt::AlignAbsolute | Qt::AlignVCenter);
}

void ToneLabel::changeEvent(QEvent* event) {
  if (event->type() == QEvent::PaletteChange) applyColour();
  if (event->type() == QEvent::LayoutDirectionChange) align();
  QLabel::changeEvent(event);
}

}  // namespace vimbrel::desktop
