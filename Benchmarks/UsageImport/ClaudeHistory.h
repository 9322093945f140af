// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>

namespace vimbrel {

struct ClaudeHistoryShape {
  std::uint64_t bytes = std::uint64_t{1} << 30U;
  std::size_t files = 800;
  std::size_t directories = 350;
  std::uint64_t seed = 1;
};

/// Writes a made-up history of Claude Code below `root`/projects: conversations of prompts, tool results of
/// all sizes and answers whose blocks repeat their message, with about 14 % of the bytes in lines that carry
/// usage.
void writeClaudeHistory(const std::string& root, const ClaudeHistoryShape& shape);

}  // namespace vimbrel
