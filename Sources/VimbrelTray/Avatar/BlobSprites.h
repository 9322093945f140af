// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <string_view>

namespace vimbrel::desktop::sprites {

// One character is one pixel: 'o' outline, 'b' body, 'h' highlight, 's' shade, 'a' sprout, 'w' white,
// 'p' pupil and mouth, 'g' glow of the signs beside the head, '.' nothing.

using Body = std::array<std::string_view, 16>;

inline constexpr Body resting{
    "................",  //
    "................",  //
    "........a.......",  //
    ".......oo.......",  //
    ".....oobboo.....",  //
    "....obhhbbbo....",  //
    "...obhhbbbbbo...",  //
    "..obhbbbbbbbbo..",  //
    "..obbbbbbbbbbo..",  //
    ".obbbbbbbbbbbbo.",  //
    ".obbbbbbbbbbbbo.",  //
    ".obbbbbbbbbbbbo.",  //
    ".obbbbbbbbbbbbo.",  //
    ".osbbbbbbbbbbso.",  //
    "..ossbbbbbbsso..",  //
    "...oooooooooo...",
};

inline constexpr Body squashed{
    "................",  //
    "................",  //
    "................",  //
    "................",  //
    ".........aa.....",  //
    "........o.......",  //
    ".....oooooo.....",  //
    "...oobbbbbboo...",  //
    "..obhhbbbbbbbo..",  //
    ".obhhbbbbbbbbbo.",  //
    "obbbbbbbbbbbbbbo",  //
    "obbbbbbbbbbbbbbo",  //
    "obbbbbbbbbbbbbbo",  //
    "osbbbbbbbbbbbbso",  //
    ".ossbbbbbbbbsso.",  //
    "..oooooooooooo..",
};

inline constexpr Body leaping{
    ".......a........",  //
    ".......o........",  //
    "......oooo......",  //
    "....oobbbboo....",  //
    "...obhhbbbbbo...",  //
    "...obhbbbbbbo...",  //
    "..obhbbbbbbbbo..",  //
    "..obbbbbbbbbbo..",  //
    "..obbbbbbbbbbo..",  //
    "..obbbbbbbbbbo..",  //
    "..obbbbbbbbbbo..",  //
    "..osbbbbbbbbso..",  //
    "...ossbbbbsso...",  //
    "....oooooooo....",  //
    "................",  //
    "................",
};

/// Asleep: low, with a hanging sprout.
inline constexpr Body slumped{
    "................",  //
    "................",  //
    "................",  //
    "................",  //
    "................",  //
    ".......ooaa.....",  //
    ".....oobboo.....",  //
    "....obhhbbbo....",  //
    "...obhhbbbbbo...",  //
    "..obhbbbbbbbbo..",  //
    ".obbbbbbbbbbbbo.",  //
    ".obbbbbbbbbbbbo.",  //
    ".obbbbbbbbbbbbo.",  //
    ".osbbbbbbbbbbso.",  //
    "..ossbbbbbbsso..",  //
    "...oooooooooo...",
};

consteval bool isWhole(const Body& body) {
  for (const auto row : body) {
    if (row.size() != body.size()) return false;
  }
  return true;
}
static_assert(isWhole(resting) && isWhole(squashed) && isWhole(leaping) && isWhole(slumped));

using Overlay = std::array<std::string_view, 5>;

inline constexpr Overlay nothing{};
inline constexpr Overlay eyesRight{"www..www", "wwp..wwp", "wwp..wwp"};
inline constexpr Overlay eyesLeft{"www..www", "pww..pww", "pww..pww"};
inline constexpr Overlay eyesUp{"wpw..wpw", "wpw..wpw", "www..www"};
inline constexpr Overlay eyesShut{"........", "ppp..ppp"};
inline constexpr Overlay eyesHappy{".p....p.", "p.p..p.p"};
inline constexpr Overlay eyesCrossed{"p.p..p.p", ".p....p.", "p.p..p.p"};

inline constexpr Overlay mouthLine{"pp"};
inline constexpr Overlay mouthSmile{"p..p", ".pp."};
inline constexpr Overlay mouthFrown{".pp.", "p..p"};
inline constexpr Overlay mouthOpen{"pp", "pp"};

inline constexpr Overlay signQuestion{"ggg", "..g", ".gg", "...", ".g."};
inline constexpr Overlay signSleep{"ggg", ".g.", "ggg"};
inline constexpr Overlay signSparkle{".g.", "ggg", ".g."};
inline constexpr Overlay signPause{"g.g", "g.g", "g.g", "g.g"};
inline constexpr Overlay signAlarm{"g", "g", "g", ".", "g"};

/// "0" to "9" and "+", three pixels by five.
inline constexpr std::array<Overlay, 11> digits{{
    {"www", "w.w", "w.w", "w.w", "www"},
    {".w.", "ww.", ".w.", ".w.", "www"},
    {"www", "..w", "www", "w..", "www"},
    {"www", "..w", ".ww", "..w", "www"},
    {"w.w", "w.w", "www", "..w", "..w"},
    {"www", "w..", "www", "..w", "www"},
    {"www", "w..", "www", "w.w", "www"},
    {"www", "..w", "..w", ".w.", ".w."},
    {"www", "w.w", "www", "w.w", "www"},
    {"www", "w.w", "www", "..w", "www"},
    {"...", ".w.", "www", ".w.", "..."},
}};

}  // namespace vimbrel::desktop::sprites
