// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>

#include "Support/Instant.h"

namespace vimbrel {

/// The application's course as lines for a log: one for each state that differs from the one before in more
/// than the seconds of a countdown.
class ChangeLines {
 public:
  /// Nobody reads a line with more; how many more there are is said.
  static constexpr std::size_t maximumAgentsNamed = 20;

  /// Of a summary (`summaryDocument`): "2026-01-31T10:00:00Z Active (1 working agent) — Claude Code working;
  /// agents: Claude Code working; held: system sleep, by logind", or nothing.
  [[nodiscard]] std::optional<std::string> next(const nlohmann::json& summary, Instant now);

 private:
  std::string last_;
};

}  // namespace vimbrel
