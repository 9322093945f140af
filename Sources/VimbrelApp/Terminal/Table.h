// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "Terminal/Palette.h"

namespace vimbrel {

/// Rows in aligned columns, two blanks apart, that fit a width: the widest columns give way first.
class Table {
 public:
  struct Cell {
    std::string text;
    Tone tone = Tone::plain;
  };

  /// Without titles (all empty) there is no heading.
  explicit Table(std::vector<std::string> titles) : titles_(std::move(titles)) {}

  /// Cells are made displayable; missing ones are empty.
  void addRow(std::vector<Cell> cells);
  [[nodiscard]] bool empty() const { return rows_.empty(); }

  /// `width` 0: as wide as it takes.
  [[nodiscard]] std::vector<std::string> lines(std::size_t width, const Palette& palette) const;

 private:
  [[nodiscard]] std::vector<std::size_t> columnWidths(std::size_t width) const;

  std::vector<std::string> titles_;
  std::vector<std::vector<Cell>> rows_;
};

}  // namespace vimbrel
