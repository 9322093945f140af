// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "Avatar/PixelSpriteFrame.h"
#include "Domain/AgentType.h"

namespace vimbrel::desktop {

/// The sign of an agent on a tile of the given colour.
[[nodiscard]] PixelSpriteFrame agentEmblem(AgentType agent, PixelRGBA tile);

/// Kinds of programs in which agents' sessions run, as far as their names tell.
enum class HostKind : std::uint8_t { terminal, panes, editor, remote, window };
[[nodiscard]] HostKind hostKindOf(std::string_view hostAppName);
/// The agent whose own program the host is ("Cursor", "Windsurf", …), if it is one.
[[nodiscard]] std::optional<AgentType> agentOfHost(std::string_view hostAppName);

/// The sign of a kind of host, in one colour on nothing.
[[nodiscard]] PixelSpriteFrame hostEmblem(HostKind kind, PixelRGBA ink);

}  // namespace vimbrel::desktop
