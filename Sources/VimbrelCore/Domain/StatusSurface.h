// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string_view>

#include "Domain/VimbrelDisplayState.h"

namespace vimbrel {

/// A place that shows the mood of the system. Queue: the user interface's.
class StatusSurface {
 public:
  virtual ~StatusSurface() = default;
  /// A stable reverse-DNS identifier.
  [[nodiscard]] virtual std::string_view surfaceIdentifier() const = 0;
  /// Draws, or updates what is drawn.
  virtual void render(const VimbrelDisplayState& state) = 0;
};

/// The three surfaces of the desktop. Their drawing belongs to the user interface, which derives from them;
/// by themselves they draw nothing.
class MenuBarStatusSurface : public StatusSurface {
 public:
  [[nodiscard]] std::string_view surfaceIdentifier() const final { return "com.vimbrel.surface.menubar"; }
  void render(const VimbrelDisplayState& /*state*/) override {}
};

class PopoverStatusSurface : public StatusSurface {
 public:
  [[nodiscard]] std::string_view surfaceIdentifier() const final { return "com.vimbrel.surface.popover"; }
  void render(const VimbrelDisplayState& /*state*/) override {}
};

class NotchStatusSurface : public StatusSurface {
 public:
  [[nodiscard]] std::string_view surfaceIdentifier() const final { return "com.vimbrel.surface.notch"; }
  void render(const VimbrelDisplayState& /*state*/) override {}
};

}  // namespace vimbrel
