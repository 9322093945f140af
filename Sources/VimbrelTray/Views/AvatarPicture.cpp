// SPDX-License-Identifier: Apache-2.0
#include "Views/AvatarPicture.h"

#include "Avatar/Emblems.h"
#include "Views/Theme.h"

namespace vimbrel::desktop {
namespace {

PixelRGBA pixelOf(const QColor& colour) {
  return {static_cast<std::uint8_t>(colour.red()), static_cast<std::uint8_t>(colour.green()),
          static_cast<std::uint8_t>(colour.blue()), 255};
}

QPixmap pixmapOf(const PixelSpriteFrame& frame, int side, qreal devicePixelRatio) {
  auto picture = QPixmap::fromImage(avatarImage(frame, qRound(side * devicePixelRatio)));
  picture.setDevicePixelRatio(devicePixelRatio);
  return picture;
}

}  // namespace

QImage avatarImage(const PixelSpriteFrame& frame, int side) {
  constexpr int grid = PixelSpriteFrame::side;
  QImage small(grid, grid, QImage::Format_ARGB32);
  for (int y = 0; y < grid; ++y) {
    for (int x = 0; x < grid; ++x) {
      const auto pixel = frame.at(x, y);
      small.setPixelColor(x, y, QColor(pixel.red, pixel.green, pixel.blue, pixel.alpha));
    }
  }
  if (side == grid) return small;
  const int whole = (side + grid - 1) / grid * grid;
  const auto crisp = small.scaled(whole, whole, Qt::IgnoreAspectRatio, Qt::FastTransformation);
  return whole == side ? crisp : crisp.scaled(side, side, Qt::IgnoreAspectRatio, Qt::SmoothTransformation);
}

QIcon avatarIcon(const PixelSpriteFrame& frame) {
  QIcon icon;
  // Few, because every change of the icon sends them all to the panel.
  for (const int side : {16, 24, 32, 48}) icon.addPixmap(QPixmap::fromImage(avatarImage(frame, side)));
  return icon;
}

QPixmap agentTile(AgentType agent, int side, qreal devicePixelRatio) {
  return pixmapOf(agentEmblem(agent, pixelOf(Theme::current().of(agent))), side, devicePixelRatio);
}

QPixmap hostTile(const std::string& hostAppName, int side, qreal devicePixelRatio) {
  if (const auto agent = agentOfHost(hostAppName)) return agentTile(*agent, side, devicePixelRatio);
  return pixmapOf(hostEmblem(hostKindOf(hostAppName), pixelOf(Theme::current().dim)), side, devicePixelRatio);
}

}  // namespace vimbrel::desktop
