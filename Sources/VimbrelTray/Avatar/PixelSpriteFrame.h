// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace vimbrel::desktop {

/// A colour, not premultiplied.
struct PixelRGBA {
  std::uint8_t red = 0;
  std::uint8_t green = 0;
  std::uint8_t blue = 0;
  std::uint8_t alpha = 0;
  bool operator==(const PixelRGBA&) const = default;
};

/// One picture of the avatar, 16 pixels by 16.
class PixelSpriteFrame {
 public:
  static constexpr int side = 16;

  [[nodiscard]] PixelRGBA at(int x, int y) const { return pixels_[index(x, y)]; }
  /// Outside the frame nothing is set.
  void set(int x, int y, PixelRGBA colour) {
    if (x >= 0 && x < side && y >= 0 && y < side) pixels_[index(x, y)] = colour;
  }
  bool operator==(const PixelSpriteFrame&) const = default;

 private:
  static constexpr std::size_t index(int x, int y) { return static_cast<std::size_t>(y * side + x); }
  std::array<PixelRGBA, static_cast<std::size_t>(side) * side> pixels_{};
};

}  // namespace vimbrel::desktop
