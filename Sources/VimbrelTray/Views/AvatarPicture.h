// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <QIcon>
#include <QPixmap>

#include "Avatar/VimbrelBlobAvatarProvider.h"
#include "Domain/AgentType.h"

namespace vimbrel::desktop {

/// The frame at `side` device pixels: whole multiples of 16 are crisp, others are scaled by area.
[[nodiscard]] QImage avatarImage(const PixelSpriteFrame& frame, int side);

/// The frame in the sizes that panels ask for.
[[nodiscard]] QIcon avatarIcon(const PixelSpriteFrame& frame);

/// A tile with the agent's letters and colour, `side` logical pixels wide.
[[nodiscard]] QPixmap agentTile(AgentType agent, int side, qreal devicePixelRatio);

}  // namespace vimbrel::desktop
