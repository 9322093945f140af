// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Views/Card.h"

namespace vimbrel::desktop {

/// What Vimbrel does and the three steps to its first agent, for somebody who has just met it.
class IntroductionView final : public Card {
  Q_OBJECT

 public:
  explicit IntroductionView(QWidget* parent = nullptr);

 Q_SIGNALS:
  void finished();
};

}  // namespace vimbrel::desktop
