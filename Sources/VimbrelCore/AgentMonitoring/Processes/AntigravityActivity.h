// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <span>
#include <string>
#include <string_view>

#include "Platform/RunningApplications.h"
#include "Support/Instant.h"

namespace vimbrel {

/// What Antigravity's conversation transcripts say about its agent.
struct AntigravityActivity {
  bool isRunning = false;
  bool isWorking = false;
  bool isWaiting = false;        ///< it was working a moment ago
  std::string_view description;  ///< a fixed sentence; lives forever
  bool operator==(const AntigravityActivity&) const = default;
};

/// True when the application is Antigravity, by its name or by its identifier.
[[nodiscard]] bool isAntigravity(const RunningApplication& application);
/// True when the ASCII text `part` stands in `text`, upper and lower case being the same.
[[nodiscard]] bool containsIgnoringCase(std::string_view text, std::string_view part);

/// Judges by the age of the transcripts in the most recently used conversation folders under
/// `.gemini/antigravity/brain` in the home directory. What cannot be read counts as idle. Reads nothing when
/// Antigravity is not running. Any thread.
[[nodiscard]] AntigravityActivity checkAntigravityWorkingState(std::span<const RunningApplication> running,
                                                               const std::string& homeDirectory, Instant now);

}  // namespace vimbrel
