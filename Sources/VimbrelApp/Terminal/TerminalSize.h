// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>

namespace vimbrel {

struct TerminalSize {
  std::size_t columns = 80;
  std::size_t rows = 24;
};

/// The terminal's size now; 80 × 24 when it does not tell.
[[nodiscard]] TerminalSize terminalSize(int descriptor);

/// The columns that output to this descriptor should fit, or 0 (no limit) when it is no terminal.
[[nodiscard]] std::size_t outputWidth(int descriptor);

}  // namespace vimbrel
