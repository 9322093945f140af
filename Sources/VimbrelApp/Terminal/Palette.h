// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <string_view>

namespace vimbrel {

/// What a text says about itself; the palette chooses the colour.
enum class Tone { plain, strong, dim, good, warning, bad };

/// Colours, or none.
class Palette {
 public:
  explicit Palette(bool enabled) : enabled_(enabled) {}
  /// Colours when the descriptor is a terminal that has them and NO_COLOR (https://no-color.org) is not set.
  [[nodiscard]] static Palette forDescriptor(int descriptor);

  [[nodiscard]] bool isEnabled() const { return enabled_; }
  [[nodiscard]] std::string paint(Tone tone, std::string_view text) const;

 private:
  bool enabled_;
};

}  // namespace vimbrel
