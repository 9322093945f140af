// SPDX-License-Identifier: Apache-2.0
// Prints the avatar at work, one row of pixels a line, each pixel as RRGGBBAA: the application's icon is made
// of it, so that it is the creature that lives in the panel. Not installed.
#include <cstdio>

#include "Avatar/VimbrelBlobAvatarProvider.h"

int main() {
  using namespace vimbrel;
  using namespace vimbrel::desktop;
  const auto frame = VimbrelBlobAvatarProvider::frames({.state = VimbrelVisualState::working}).front();
  for (int y = 0; y < PixelSpriteFrame::side; ++y) {
    for (int x = 0; x < PixelSpriteFrame::side; ++x) {
      const auto pixel = frame.at(x, y);
      std::printf("%s%02x%02x%02x%02x", x == 0 ? "" : " ", pixel.red, pixel.green, pixel.blue, pixel.alpha);
    }
    std::puts("");
  }
  return 0;
}
