// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <QLabel>

#include "Presentation/Tone.h"

namespace vimbrel::desktop {

/// Plain text in the colour of its tone, in whatever theme is in force; on the side on which the layout
/// begins, whatever the text's direction is.
class ToneLabel final : public QLabel {
  Q_OBJECT

 public:
  explicit ToneLabel(Tone tone = Tone::plain, QWidget* parent = nullptr, const QString& text = {});
  void setTone(Tone tone);
  /// By how much its letters differ from the usual size.
  void setScale(double factor, bool isBold = false);

 protected:
  void changeEvent(QEvent* event) override;

 private:
  void applyColour();
  void align();
  Tone tone_;
};

}  // namespace vimbrel::desktop
