// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string_view>

namespace vimbrel {

/// Short system sounds. Queue: the main queue; playing goes on after the call.
class SoundPlayer {
 public:
  virtual ~SoundPlayer() = default;
  /// False when there is no sound of this name.
  virtual bool play(std::string_view name) = 0;
  virtual void beep() = 0;
};

}  // namespace vimbrel
