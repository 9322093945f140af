// SPDX-License-Identifier: Apache-2.0
#include "Views/AvatarPicture.h"

#include <QPainter>

#include "Views/Theme.h"

namespace vimbrel::desktop {
namespace {

QString lettersOf(AgentType agent) {
  switch (agent) {
    case AgentType::claude:
      return "Cl";
    case AgentType::codex:
      return "Cx";
    case AgentType::gemini:
      return "Ge";
    case AgentType::opencode:
      return "Oc";
    case AgentType::antigravity:
      return "Ag";
    case AgentType::cursor:
      return "Cu";
    case AgentType::windsurf:
      return "Ws";
    case AgentType::aider:
      return "Ai";
    case AgentType::custom:
      break;
  }
  return "?";
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
  QPixmap tile(QSize(side, side) * devicePixelRatio);
  tile.setDevicePixelRatio(devicePixelRatio);
  tile.fill(Qt::transparent);
  QPainter painter(&tile);
  painter.setRenderHint(QPainter::Antialiasing);
  painter.setPen(Qt::NoPen);
  painter.setBrush(Theme::current().of(agent));
  painter.drawRoundedRect(QRectF(0, 0, side, side), side * 0.24, side * 0.24);
  auto font = painter.font();
  font.setPixelSize(std::max(side / 2, 6));
  font.setBold(true);
  painter.setFont(font);
  painter.setPen(Qt::white);
  painter.drawText(QRectF(0, 0, side, side), Qt::AlignCenter, lettersOf(agent));
  return tile;
}

}  // namespace vimbrel::desktop
