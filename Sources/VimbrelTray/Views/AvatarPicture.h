// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <QIcon>
#include <QPixmap>
#include <string>

#include "Avatar/VimbrelBlobAvatarProvider.h"
#include "Domain/AgentType.h"

namespace vimbrel::desktop {

/// The frame at `side` device pixels: whole multiples of 16 are crisp, others are scaled by area.
[[nodiscard]] QImage avatarImage(const PixelSpriteFrame& frame, int side);

/// The frame in the sizes that panels ask for.
[[nodiscard]] QIcon avatarIcon(const PixelSpriteFrame& frame);

/// A tile with the agent's sign and colour, `side` logical pixels wide: multiples of 16 are crisp.
[[nodiscard]] QPixmap agentTile(AgentType agent, int side, qreal devicePixelRatio);

/// The same for the program in which an agent's session runs.
[[nodiscard]] QPixmap hostTile(const std::string& hostAppName, int side, qreal devicePixelRatio);

}  // namespace vimbrel::desktop
