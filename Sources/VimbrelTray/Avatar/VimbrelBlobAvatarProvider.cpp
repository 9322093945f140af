// SPDX-License-Identifier: Apache-2.0
#include "Avatar/VimbrelBlobAvatarProvider.h"

#include <algorithm>

#include "Avatar/BlobSprites.h"

namespace vimbrel::desktop {
namespace {

using namespace sprites;

constexpr PixelRGBA rgb(std::uint32_t value) {
  return {static_cast<std::uint8_t>(value >> 16U), static_cast<std::uint8_t>(value >> 8U),
          static_cast<std::uint8_t>(value), 255};
}

struct Palette {
  PixelRGBA outline = rgb(0x1d2129);
  PixelRGBA body;
  PixelRGBA highlight;
  PixelRGBA shade;
  PixelRGBA sprout;
  PixelRGBA eye = rgb(0xffffff);
  PixelRGBA pupil = rgb(0x1d2129);
  PixelRGBA glow;
};

constexpr Palette grey{.body = rgb(0x8f99ab),
                       .highlight = rgb(0xc3cad6),
                       .shade = rgb(0x6a7384),
                       .sprout = rgb(0x6fae7c),
                       .glow = rgb(0x9fb4d8)};
constexpr Palette mint{.body = rgb(0x2bc48f),
                       .highlight = rgb(0x9af0d0),
                       .shade = rgb(0x189468),
                       .sprout = rgb(0xa6e22e),
                       .glow = rgb(0xfff2a8)};
constexpr Palette amber{.body = rgb(0xf5a623),
                        .highlight = rgb(0xffdf9c),
                        .shade = rgb(0xc27a0a),
                        .sprout = rgb(0x7fbf4d),
                        .glow = rgb(0xffc14d)};
constexpr Palette sky{.body = rgb(0x4a90f0),
                      .highlight = rgb(0xb0d2ff),
                      .shade = rgb(0x2b66b8),
                      .sprout = rgb(0x8fd14f),
                      .glow = rgb(0xffe066)};
constexpr Palette red{.body = rgb(0xe5484d),
                      .highlight = rgb(0xffb3b5),
                      .shade = rgb(0xa82a30),
                      .sprout = rgb(0x8a8f58),
                      .glow = rgb(0xff7a7e)};
constexpr Palette ghost{.outline = {128, 134, 145, 255},
                        .body = {128, 134, 145, 60},
                        .highlight = {128, 134, 145, 60},
                        .shade = {128, 134, 145, 100},
                        .sprout = {128, 134, 145, 255},
                        .eye = {128, 134, 145, 255},
                        .pupil = {128, 134, 145, 255},
                        .glow = {128, 134, 145, 255}};

/// One picture, put together from the tables.
struct Composition {
  const Body& body;
  const Overlay& eyes = nothing;
  int eyesY = 8;  ///< the eyes' top row; they stand in the middle
  const Overlay& mouth = nothing;
  int mouthY = 12;
  const Overlay& sign = nothing;
  int signY = 1;  ///< signs stand at the right edge
};

PixelRGBA colourOf(char code, const Palette& palette) {
  switch (code) {
    case 'o':
      return palette.outline;
    case 'b':
      return palette.body;
    case 'h':
      return palette.highlight;
    case 's':
      return palette.shade;
    case 'a':
      return palette.sprout;
    case 'w':
      return palette.eye;
    case 'p':
      return palette.pupil;
    case 'g':
      return palette.glow;
    default:
      return {};
  }
}

template <typename Rows>
void paint(PixelSpriteFrame& frame, const Rows& rows, int left, int top, const Palette& palette) {
  int y = top;
  for (const auto row : rows) {
    int x = left;
    for (const char code : row) {
      if (code != '.') frame.set(x, y, colourOf(code, palette));
      ++x;
    }
    ++y;
  }
}

PixelSpriteFrame compose(const Composition& parts, const Palette& palette) {
  PixelSpriteFrame frame;
  const auto centred = [](const Overlay& overlay) {
    return (PixelSpriteFrame::side - static_cast<int>(overlay.front().size())) / 2;
  };
  paint(frame, parts.body, 0, 0, palette);
  paint(frame, parts.eyes, centred(parts.eyes), parts.eyesY, palette);
  paint(frame, parts.mouth, centred(parts.mouth), parts.mouthY, palette);
  paint(frame, parts.sign, PixelSpriteFrame::side - static_cast<int>(parts.sign.front().size()), parts.signY,
        palette);
  return frame;
}

std::vector<PixelSpriteFrame> sleeping(const Palette& palette) {
  return {compose({.body = slumped, .eyes = eyesShut, .eyesY = 9, .sign = signSleep}, palette)};
}

std::vector<PixelSpriteFrame> working() {
  return {compose({.body = resting, .eyes = eyesRight, .mouth = mouthLine}, mint),
          compose({.body = squashed, .eyes = eyesRight, .eyesY = 9, .mouth = mouthLine, .mouthY = 13}, mint),
          compose({.body = leaping, .eyes = eyesRight, .eyesY = 5, .mouth = mouthOpen, .mouthY = 9}, mint),
          compose({.body = resting, .eyes = eyesLeft, .mouth = mouthLine}, mint),
          compose({.body = squashed, .eyes = eyesLeft, .eyesY = 9, .mouth = mouthLine, .mouthY = 13}, mint),
          compose({.body = leaping, .eyes = eyesLeft, .eyesY = 5, .mouth = mouthOpen, .mouthY = 9}, mint)};
}

std::vector<PixelSpriteFrame> waiting() {
  return {
      compose({.body = resting, .eyes = eyesUp, .mouth = mouthOpen, .sign = signQuestion}, amber),
      compose({.body = resting, .eyes = eyesUp, .mouth = mouthOpen, .sign = signQuestion, .signY = 0}, amber),
      compose({.body = resting, .eyes = eyesUp, .mouth = mouthOpen, .sign = signQuestion}, amber),
      compose({.body = resting, .eyes = eyesShut, .mouth = mouthOpen}, amber)};
}

std::vector<PixelSpriteFrame> completed() {
  return {compose({.body = resting, .eyes = eyesHappy, .mouth = mouthSmile}, sky),
          compose({.body = resting, .eyes = eyesHappy, .mouth = mouthSmile, .sign = signSparkle}, sky),
          compose({.body = leaping,
                   .eyes = eyesHappy,
                   .eyesY = 6,
                   .mouth = mouthSmile,
                   .mouthY = 9,
                   .sign = signSparkle,
                   .signY = 0},
                  sky),
          compose({.body = resting, .eyes = eyesHappy, .mouth = mouthSmile, .sign = signSparkle, .signY = 2},
                  sky)};
}

}  // namespace

std::vector<PixelSpriteFrame> VimbrelBlobAvatarProvider::frames(const AvatarMood& mood) {
  if (mood.isAbsent) return sleeping(ghost);
  if (mood.isPaused)
    return {compose({.body = slumped, .eyes = eyesShut, .eyesY = 9, .sign = signPause}, amber)};
  switch (mood.state) {
    case VimbrelVisualState::working:
      return working();
    case VimbrelVisualState::waiting:
      return waiting();
    case VimbrelVisualState::completed:
      return completed();
    case VimbrelVisualState::error:
      return {compose({.body = resting, .eyes = eyesCrossed, .mouth = mouthFrown, .sign = signAlarm}, red)};
    case VimbrelVisualState::idle:
      break;
  }
  return sleeping(grey);
}

Seconds VimbrelBlobAvatarProvider::frameDuration(const AvatarMood& mood) {
  if (mood.isAbsent || mood.isPaused || !isAnimated(mood.state)) return Seconds(0);
  return defaultFrameDuration(mood.state);
}

PixelSpriteFrame VimbrelBlobAvatarProvider::withCount(PixelSpriteFrame frame, std::int64_t count) {
  if (count < 1) return frame;
  constexpr PixelRGBA plate = rgb(0x1d2129);
  constexpr int left = PixelSpriteFrame::side - 5;
  constexpr int top = PixelSpriteFrame::side - 7;
  for (int y = top; y < PixelSpriteFrame::side; ++y) {
    for (int x = left; x < PixelSpriteFrame::side; ++x) frame.set(x, y, plate);
  }
  const auto glyph = static_cast<std::size_t>(std::min<std::int64_t>(count, 10));
  paint(frame, digits[glyph], left + 1, top + 1, mint);
  return frame;
}

}  // namespace vimbrel::desktop
