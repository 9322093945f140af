// SPDX-License-Identifier: Apache-2.0
#include "Views/AvatarAnimation.h"

#include <set>

namespace vimbrel::desktop {
namespace {

bool isMotionReduced = false;

std::set<AvatarAnimation*>& all() {
  static std::set<AvatarAnimation*> animations;
  return animations;
}

}  // namespace

AvatarAnimation::AvatarAnimation(std::function<void()> changed, QObject* parent)
    : QObject(parent), changed_(std::move(changed)), frames_(VimbrelBlobAvatarProvider::frames(mood_)) {
  all().insert(this);
}

AvatarAnimation::~AvatarAnimation() { all().erase(this); }

void AvatarAnimation::setMood(const AvatarMood& mood) {
  if (mood == mood_) return;
  mood_ = mood;
  frames_ = VimbrelBlobAvatarProvider::frames(mood);
  index_ = 0;
  timer_.stop();
  adjustTimer();
  changed_();
}

void AvatarAnimation::setVisible(bool visible) {
  isVisible_ = visible;
  adjustTimer();
}

void AvatarAnimation::setMotionReduced(bool reduced) {
  if (reduced == isMotionReduced) return;
  isMotionReduced = reduced;
  for (auto* animation : all()) {
    animation->adjustTimer();
    if (reduced && animation->index_ != 0) {
      animation->index_ = 0;
      animation->changed_();
    }
  }
}

void AvatarAnimation::adjustTimer() {
  const auto duration = VimbrelBlobAvatarProvider::frameDuration(mood_);
  if (!isVisible_ || isMotionReduced || duration <= Seconds(0)) {
    timer_.stop();
  } else if (!timer_.isActive()) {
    timer_.start(static_cast<int>(duration.count() * 1000), Qt::CoarseTimer, this);
  }
}

void AvatarAnimation::timerEvent(QTimerEvent* /*event*/) {
  index_ = (index_ + 1) % frames_.size();
  changed_();
}

}  // namespace vimbrel::desktop
