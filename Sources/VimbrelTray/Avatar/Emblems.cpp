// SPDX-License-Identifier: Apache-2.0
#include "Avatar/Emblems.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <string>

#include "Avatar/EmblemSprites.h"

namespace vimbrel::desktop {
namespace {

using namespace sprites;

constexpr PixelRGBA white{255, 255, 255, 255};
constexpr PixelRGBA dark{29, 33, 41, 255};
constexpr int signEdge = 3;  ///< the sign stands in the middle of the frame

const Emblem& signOf(AgentType agent) {
  switch (agent) {
    case AgentType::claude:
      return quill;
    case AgentType::codex:
      return prompt;
    case AgentType::gemini:
      return twins;
    case AgentType::opencode:
      return braces;
    case AgentType::antigravity:
      return balloon;
    case AgentType::cursor:
      return pointer;
    case AgentType::windsurf:
      return sail;
    case AgentType::aider:
      return cross;
    case AgentType::custom:
      break;
  }
  return spanner;
}

const Emblem& signOf(HostKind kind) {
  switch (kind) {
    case HostKind::terminal:
      return terminal;
    case HostKind::panes:
      return panes;
    case HostKind::editor:
      return editor;
    case HostKind::remote:
      return mast;
    case HostKind::window:
      break;
  }
  return sprites::window;
}

void paint(PixelSpriteFrame& frame, const Emblem& sign, PixelRGBA ink) {
  for (std::size_t y = 0; y < sign.size(); ++y) {
    for (std::size_t x = 0; x < sign[y].size(); ++x) {
      if (sign[y][x] == '#') frame.set(static_cast<int>(x) + signEdge, static_cast<int>(y) + signEdge, ink);
    }
  }
}

PixelRGBA mixed(PixelRGBA colour, PixelRGBA other, double share) {
  const auto mix = [&](std::uint8_t one, std::uint8_t two) {
    return static_cast<std::uint8_t>(one + (two - one) * share);
  };
  return {mix(colour.red, other.red), mix(colour.green, other.green), mix(colour.blue, other.blue),
          colour.alpha};
}

bool hasAny(const std::string& name, std::initializer_list<std::string_view> words) {
  return std::ranges::any_of(words,
                             [&](std::string_view word) { return name.find(word) != std::string::npos; });
}

std::string lowered(std::string_view text) {
  std::string result(text);
  std::ranges::transform(result, result.begin(), [](unsigned char letter) { return std::tolower(letter); });
  return result;
}

}  // namespace

PixelSpriteFrame agentEmblem(AgentType agent, PixelRGBA tile) {
  PixelSpriteFrame frame;
  constexpr int last = PixelSpriteFrame::side - 1;
  const auto light = mixed(tile, white, 0.28);
  const auto shade = mixed(tile, {0, 0, 0, 255}, 0.28);
  for (int y = 0; y <= last; ++y) {
    for (int x = 0; x <= last; ++x) {
      // Corners as the creature has them: stepped.
      const int fromCorner = std::min(x, last - x) + std::min(y, last - y);
      if (fromCorner < 2) continue;
      const bool isTop = y == 0 || (fromCorner == 2 && y < last / 2);
      const bool isBottom = y == last || (fromCorner == 2 && y > last / 2);
      frame.set(x, y, isTop ? light : isBottom ? shade : tile);
    }
  }
  // The sign is seen on light tiles, too.
  const double brightness = 0.299 * tile.red + 0.587 * tile.green + 0.114 * tile.blue;
  paint(frame, signOf(agent), brightness > 150 ? dark : white);
  return frame;
}

HostKind hostKindOf(std::string_view hostAppName) {
  const auto name = lowered(hostAppName);
  // "ssh" in a terminal's name is more than the terminal.
  if (hasAny(name, {"ssh", "mosh", "remote"})) return HostKind::remote;
  if (hasAny(name, {"tmux", "zellij", "byobu"})) return HostKind::panes;
  if (hasAny(name, {"term", "konsole", "kitty", "alacritty", "ghostty", "tilix", "guake", "yakuake", "foot",
                    "console", "ptyxis", "rxvt", "warp"})) {
    return HostKind::terminal;
  }
  if (hasAny(name, {"code", "codium", "vim", "emacs", "zed", "sublime", "kate", "idea", "jetbrains",
                    "pycharm", "clion", "goland", "webstorm", "rider", "studio", "edit"})) {
    return HostKind::editor;
  }
  return HostKind::window;
}

std::optional<AgentType> agentOfHost(std::string_view hostAppName) {
  const auto name = lowered(hostAppName);
  for (const auto agent :
       {AgentType::opencode, AgentType::antigravity, AgentType::cursor, AgentType::windsurf}) {
    if (name == lowered(displayName(agent))) return agent;
  }
  return std::nullopt;
}

PixelSpriteFrame hostEmblem(HostKind kind, PixelRGBA ink) {
  PixelSpriteFrame frame;
  paint(frame, signOf(kind), ink);
  return frame;
}

}  // namespace vimbrel::desktop
