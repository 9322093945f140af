// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <QColor>
#include <QPalette>

#include "Domain/AgentType.h"
#include "Domain/VimbrelVisualState.h"
#include "Presentation/Tone.h"

namespace vimbrel::desktop {

/// The desktop's colours, light or dark. Texts on `window` and `card` have a contrast of at least 4.5 : 1.
struct Theme {
  QColor window;
  QColor card;
  QColor border;
  QColor text;
  QColor dim;
  QColor accent;
  QColor onAccent;  ///< text on `accent`
  QColor good;
  QColor warning;
  QColor bad;
  QColor track;  ///< the empty part of a bar
  QColor hover;
  QColor selection;  ///< behind what is chosen in a list; texts keep their colours on it
  QColor stripe;     ///< every second row of a table
  bool isDark = false;

  [[nodiscard]] QColor of(Tone tone) const;
  [[nodiscard]] QColor of(VimbrelVisualState state) const;
  [[nodiscard]] QColor of(AgentType agent) const;
  [[nodiscard]] QPalette palette() const;

  static const Theme& light();
  static const Theme& dark();
  /// The one in force: as the application's palette says.
  static const Theme& current();
};

}  // namespace vimbrel::desktop
