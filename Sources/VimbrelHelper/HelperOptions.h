// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <expected>
#include <string>
#include <vector>

namespace vimbrel {

/// What the helper's command line says.
struct HelperOptions {
  bool user = false;      ///< serve one user on that user's own socket
  bool simulate = false;  ///< keep the sleep setting in memory
  bool help = false;
  bool version = false;
  std::string socketPath;  ///< never empty after `parseHelperOptions`
  std::string stateFile;   ///< never empty after `parseHelperOptions`
};

extern const char* const helperUsage;

/// Reads the arguments (without the program's name) and fills in the default paths. The error is a sentence.
[[nodiscard]] std::expected<HelperOptions, std::string> parseHelperOptions(
    const std::vector<std::string>& arguments);

}  // namespace vimbrel
