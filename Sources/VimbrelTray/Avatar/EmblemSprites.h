// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <string_view>

namespace vimbrel::desktop::sprites {

// '#' is a pixel of the sign, '.' is nothing. Ten pixels by ten, to stand on a tile or alone.

using Emblem = std::array<std::string_view, 10>;

/// A quill, for the one that writes much.
inline constexpr Emblem quill{
    "......####",  //
    "....#####.",  //
    "...######.",  //
    "..######..",  //
    "..##.###..",  //
    "..#.###...",  //
    "...###....",  //
    "..##......",  //
    ".##.......",  //
    "##........",
};

/// A prompt with its cursor.
inline constexpr Emblem prompt{
    "##........",  //
    ".##.......",  //
    "..##......",  //
    "...##.....",  //
    "....##....",  //
    "...##.....",  //
    "..##......",  //
    ".##...####",  //
    "##....####",  //
    "..........",
};

/// Twins, hand in hand.
inline constexpr Emblem twins{
    ".##....##.",  //
    ".##....##.",  //
    "..........",  //
    "####..####",  //
    "##########",  //
    "####..####",  //
    ".##....##.",  //
    ".##....##.",  //
    ".##....##.",  //
    ".##....##.",
};

/// Braces that hold something.
inline constexpr Emblem braces{
    "..##..##..",  //
    ".##....##.",  //
    ".##....##.",  //
    ".##.##.##.",  //
    "##..##..##",  //
    "##..##..##",  //
    ".##.##.##.",  //
    ".##....##.",  //
    ".##....##.",  //
    "..##..##..",
};

/// A balloon that has left the ground.
inline constexpr Emblem balloon{
    "...####...",  //
    "..######..",  //
    ".##.#####.",  //
    ".#.######.",  //
    ".########.",  //
    "..######..",  //
    "...####...",  //
    "....##....",  //
    "....#.....",  //
    ".....#....",
};

/// A pointer.
inline constexpr Emblem pointer{
    ".##.......",  //
    ".###......",  //
    ".####.....",  //
    ".#####....",  //
    ".######...",  //
    ".#######..",  //
    ".#####....",  //
    ".##.##....",  //
    ".#..###...",  //
    ".....##...",
};

/// A sail on its board.
inline constexpr Emblem sail{
    ".....#....",  //
    "....##....",  //
    "....##.#..",  //
    "...###.##.",  //
    "...###.##.",  //
    "..####.###",  //
    ".#####.###",  //
    "..........",  //
    "##########",  //
    ".########.",
};

/// First aid.
inline constexpr Emblem cross{
    "...####...",  //
    "...####...",  //
    "...####...",  //
    "##########",  //
    "##########",  //
    "##########",  //
    "##########",  //
    "...####...",  //
    "...####...",  //
    "...####...",
};

/// A spanner, for what people have made themselves.
inline constexpr Emblem spanner{
    "......###.",  //
    ".....##...",  //
    ".....##..#",  //
    ".....#####",  //
    "....#####.",  //
    "...###....",  //
    "..###.....",  //
    ".###......",  //
    "###.......",  //
    "##........",
};

/// A terminal's window.
inline constexpr Emblem terminal{
    "##########",  //
    "#........#",  //
    "#.#......#",  //
    "#..#.....#",  //
    "#...#....#",  //
    "#..#.....#",  //
    "#.#..###.#",  //
    "#........#",  //
    "##########",  //
    "..........",
};

/// A terminal that is split in panes.
inline constexpr Emblem panes{
    "##########",  //
    "#....#...#",  //
    "#....#...#",  //
    "#....#...#",  //
    "#....#####",  //
    "#....#...#",  //
    "#....#...#",  //
    "#....#...#",  //
    "##########",  //
    "..........",
};

/// An editor: its side bar and lines of text.
inline constexpr Emblem editor{
    "##########",  //
    "###......#",  //
    "###.####.#",  //
    "###......#",  //
    "###.##...#",  //
    "###......#",  //
    "###.###..#",  //
    "###......#",  //
    "##########",  //
    "..........",
};

/// A mast that sends: another machine.
inline constexpr Emblem mast{
    "#..#..#..#",  //
    "#.#.##.#.#",  //
    "#.#.##.#.#",  //
    "#..#..#..#",  //
    "....##....",  //
    "....##....",  //
    "...####...",  //
    "...#..#...",  //
    "..##..##..",  //
    "..#....#..",
};

/// A window of any other program.
inline constexpr Emblem window{
    "##########",  //
    "#.#.#....#",  //
    "##########",  //
    "#........#",  //
    "#........#",  //
    "#........#",  //
    "#........#",  //
    "#........#",  //
    "##########",  //
    "..........",
};

consteval bool areWhole(std::initializer_list<Emblem> emblems) {
  for (const auto& emblem : emblems) {
    for (const auto row : emblem) {
      if (row.size() != emblem.size()) return false;
    }
  }
  return true;
}
static_assert(areWhole({quill, prompt, twins, braces, balloon, pointer, sail, cross, spanner, terminal, panes,
                        editor, mast, window}));

}  // namespace vimbrel::desktop::sprites
