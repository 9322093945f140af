// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <string_view>

#include "Platform/SoundPlayer.h"

namespace vimbrel {

/// Plays event sounds of the desktop's sound theme by libcanberra, which is loaded at the first sound. "Hero"
/// is the theme's "complete". Without the library, or a sound server, everything is silent. Queue: one at a
/// time; playing goes on in a thread of the library's.
class CanberraSoundPlayer final : public SoundPlayer {
 public:
  CanberraSoundPlayer();
  ~CanberraSoundPlayer() override;
  /// False when there is no such sound, or nothing to play it with.
  bool play(std::string_view name) override;
  void beep() override;

 private:
  struct Library;
  bool playEvent(const char* event);
  /// Whether there is a sound server or a sound card. Without one, the library would complain on standard
  /// error at every sound.
  [[nodiscard]] static bool canBeHeard();
  std::unique_ptr<Library> library_;
};

}  // namespace vimbrel
