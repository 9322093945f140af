// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <QBasicTimer>
#include <QObject>
#include <functional>
#include <vector>

#include "Avatar/VimbrelBlobAvatarProvider.h"

namespace vimbrel::desktop {

/// Steps through the frames of a mood while somebody looks. Without a viewer, with a mood that does not move,
/// or with motion reduced, no timer runs.
class AvatarAnimation final : public QObject {
 public:
  /// `changed` is called whenever `frame` has become another one.
  explicit AvatarAnimation(std::function<void()> changed, QObject* parent = nullptr);
  ~AvatarAnimation() override;

  void setMood(const AvatarMood& mood);
  void setVisible(bool visible);
  [[nodiscard]] const PixelSpriteFrame& frame() const { return frames_[index_]; }
  [[nodiscard]] const AvatarMood& mood() const { return mood_; }

  /// For every animation of the program; takes effect at once.
  static void setMotionReduced(bool reduced);

 protected:
  void timerEvent(QTimerEvent* event) override;

 private:
  void adjustTimer();

  std::function<void()> changed_;
  AvatarMood mood_;
  std::vector<PixelSpriteFrame> frames_;
  std::size_t index_ = 0;
  bool isVisible_ = false;
  QBasicTimer timer_;
};

}  // namespace vimbrel::desktop
