// SPDX-License-Identifier: Apache-2.0
#include "Terminal/DisplayText.h"

#include <algorithm>
#include <cstdint>

#include "Support/JsonWriter.h"

namespace vimbrel {
namespace {

struct Range {
  std::uint32_t first;
  std::uint32_t last;
};

// From the Unicode Character Database: the main blocks of Mn and Me, and zero-width format characters.
constexpr Range zeroWidth[] = {{0x0300, 0x036F}, {0x0483, 0x0489},  {0x0591, 0x05BD}, {0x064B, 0x065F},
                               {0x1AB0, 0x1AFF}, {0x1DC0, 0x1DFF},  {0x200B, 0x200F}, {0x202A, 0x202E},
                               {0x2060, 0x2064}, {0x20D0, 0x20FF},  {0xFE00, 0xFE0F}, {0xFE20, 0xFE2F},
                               {0xFEFF, 0xFEFF}, {0xE0100, 0xE01EF}};
// East_Asian_Width W and F, by block.
constexpr Range doubleWidth[] = {
    {0x1100, 0x115F},   {0x2E80, 0x303E},   {0x3041, 0xA4CF},  {0xA960, 0xA97F}, {0xAC00, 0xD7A3},
    {0xF900, 0xFAFF},   {0xFE30, 0xFE6F},   {0xFF00, 0xFF60},  {0xFFE0, 0xFFE6}, {0x1F300, 0x1F64F},
    {0x1F680, 0x1F6FF}, {0x1F900, 0x1F9FF}, {0x20000, 0x3FFFD}};

template <std::size_t Count>
bool isIn(const Range (&ranges)[Count], std::uint32_t point) {
  return std::ranges::any_of(ranges,
                             [=](const Range& range) { return point >= range.first && point <= range.last; });
}

std::uint32_t codePoint(std::string_view sequence) {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(sequence[i]); };
  if (sequence.size() == 1) return byte(0);
  std::uint32_t point = byte(0) & (0xFFU >> (sequence.size() + 1));
  for (std::size_t i = 1; i < sequence.size(); ++i) point = point << 6U | (byte(i) & 0x3FU);
  return point;
}

std::size_t widthOf(std::string_view sequence) {
  if (sequence.size() == 1) return 1;
  const auto point = codePoint(sequence);
  if (isIn(zeroWidth, point)) return 0;
  return isIn(doubleWidth, point) ? 2 : 1;
}

/// The first character, malformed bytes one at a time.
std::string_view firstCharacter(std::string_view text) {
  return text.substr(0, std::max<std::size_t>(utf8SequenceLength(text), 1));
}

}  // namespace

std::size_t displayWidth(std::string_view text) {
  std::size_t width = 0;
  while (!text.empty()) {
    const auto character = firstCharacter(text);
    width += widthOf(character);
    text.remove_prefix(character.size());
  }
  return width;
}

std::string displayable(std::string_view text) {
  std::string result;
  while (!text.empty()) {
    const auto length = utf8SequenceLength(text);
    const auto character = firstCharacter(text);
    const auto point = length == 0 ? 0 : codePoint(character);
    // Directional overrides could show a text in another order than it has.
    const bool steers = point < 0x20 || (point >= 0x7F && point < 0xA0) ||
                        (point >= 0x202A && point <= 0x202E) || (point >= 0x2066 && point <= 0x2069);
    if (steers) {
      result += '?';
    } else {
      result += character;
    }
    text.remove_prefix(character.size());
  }
  return result;
}

std::string clipped(std::string_view text, std::size_t width) {
  if (displayWidth(text) <= width) return std::string(text);
  if (width == 0) return {};
  std::string result;
  std::size_t used = 0;
  while (!text.empty()) {
    const auto character = firstCharacter(text);
    if (used + widthOf(character) > width - 1) break;
    used += widthOf(character);
    result += character;
    text.remove_prefix(character.size());
  }
  return result + "…";
}

std::string padded(std::string_view text, std::size_t width) {
  std::string result = clipped(text, width);
  result.append(width - displayWidth(result), ' ');
  return result;
}

std::vector<std::string> wrapped(std::string_view text, std::size_t width) {
  if (width == 0) return {std::string(text)};
  std::vector<std::string> lines;
  std::string line;
  const auto breakLine = [&] {
    lines.push_back(std::move(line));
    line.clear();
  };
  while (!text.empty()) {
    const auto end = std::min(text.find(' '), text.size());
    auto word = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    if (!line.empty() && displayWidth(line) + 1 + displayWidth(word) > width) breakLine();
    if (!line.empty()) line += ' ';
    while (displayWidth(line) + displayWidth(word) > width) {
      auto character = firstCharacter(word);
      while (displayWidth(line) + widthOf(character) <= width) {
        line += character;
        word.remove_prefix(character.size());
        character = firstCharacter(word);
      }
      if (line.empty()) break;  // Not even one wide character fits.
      breakLine();
    }
    line += word;
  }
  if (!line.empty() || lines.empty()) breakLine();
  return lines;
}

}  // namespace vimbrel
