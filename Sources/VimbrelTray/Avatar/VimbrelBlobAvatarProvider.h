// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <vector>

#include "Avatar/PixelSpriteFrame.h"
#include "Domain/VimbrelVisualState.h"
#include "Support/Instant.h"

namespace vimbrel::desktop {

/// What the avatar tells besides the visual state.
struct AvatarMood {
  VimbrelVisualState state = VimbrelVisualState::idle;
  bool isAbsent = false;  ///< the application is not running: the outline of a sleeper, without colour
  bool isPaused = false;  ///< two bars where the sparkle would be
  bool operator==(const AvatarMood&) const = default;
};

/// The Vimbrel Blob: a small creature with a sprout, whose colour, eyes and bounce tell the state even where
/// colours cannot be told apart. Drawn from tables; the frames of one mood never change.
class VimbrelBlobAvatarProvider {
 public:
  /// In order; one frame where nothing moves.
  [[nodiscard]] static std::vector<PixelSpriteFrame> frames(const AvatarMood& mood);
  /// How long each frame stays; zero where nothing moves.
  [[nodiscard]] static Seconds frameDuration(const AvatarMood& mood);

  /// The frame with a count in its corner: 1 to 9, then "+". 0 leaves the frame as it is.
  [[nodiscard]] static PixelSpriteFrame withCount(PixelSpriteFrame frame, std::int64_t count);
};

}  // namespace vimbrel::desktop
