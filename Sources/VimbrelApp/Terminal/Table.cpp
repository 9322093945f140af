// SPDX-License-Identifier: Apache-2.0
#include "Terminal/Table.h"

#include <algorithm>
#include <numeric>

#include "Terminal/DisplayText.h"

namespace vimbrel {
namespace {

constexpr std::size_t gap = 2;
/// A column is of no use when it is narrower.
constexpr std::size_t narrowestColumn = 4;

}  // namespace

void Table::addRow(std::vector<Cell> cells) {
  cells.resize(titles_.size());
  for (auto& cell : cells) cell.text = displayable(cell.text);
  rows_.push_back(std::move(cells));
}

std::vector<std::size_t> Table::columnWidths(std::size_t width) const {
  std::vector<std::size_t> widths;
  for (const auto& title : titles_) widths.push_back(displayWidth(title));
  for (const auto& row : rows_) {
    for (std::size_t i = 0; i < row.size(); ++i) {
      widths[i] = std::max(widths[i], displayWidth(row[i].text));
    }
  }
  if (width == 0) return widths;
  const auto total = [&] {
    return std::accumulate(widths.begin(), widths.end(), std::size_t{0}) + gap * (widths.size() - 1);
  };
  while (total() > width) {
    const auto widest = std::ranges::max_element(widths);
    if (*widest <= narrowestColumn) break;
    --*widest;
  }
  return widths;
}

std::vector<std::string> Table::lines(std::size_t width, const Palette& palette) const {
  const auto widths = columnWidths(width);
  std::vector<std::string> result;
  const auto add = [&](const std::vector<Cell>& cells) {
    std::string line;
    std::size_t used = 0;
    for (std::size_t i = 0; i < cells.size(); ++i) {
      const auto left = width == 0 ? widths[i] : std::min(widths[i], width - std::min(width, used));
      const bool isLast = i + 1 == cells.size();
      line +=
          palette.paint(cells[i].tone, isLast ? clipped(cells[i].text, left) : padded(cells[i].text, left));
      used += left;
      if (isLast || (width != 0 && used + gap >= width)) break;
      line.append(gap, ' ');
      used += gap;
    }
    line.erase(line.find_last_not_of(' ') + 1);
    result.push_back(std::move(line));
  };
  if (std::ranges::any_of(titles_, [](const auto& title) { return !title.empty(); })) {
    std::vector<Cell> heading;
    for (const auto& title : titles_) heading.push_back({title, Tone::dim});
    add(heading);
  }
  for (const auto& row : rows_) add(row);
  return result;
}

}  // namespace vimbrel
