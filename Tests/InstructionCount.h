// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include "Support/Subprocess.h"

namespace vimbrel {

/// How many instructions a run of `program` takes in user space, counted by valgrind: the same number every
/// time, whatever else the machine does. Absent where valgrind is missing or does not work.
inline std::optional<long> userInstructions(const std::string& program,
                                            const std::vector<std::string>& arguments) {
  std::vector<std::string> all{"--tool=callgrind", "--callgrind-out-file=/dev/null", "--log-fd=1", program};
  all.insert(all.end(), arguments.begin(), arguments.end());
  const auto result = runProgram("/usr/bin/valgrind", all, {.timeout = std::chrono::seconds(30)});
  constexpr std::string_view label = "Collected : ";
  if (!result || result->exitStatus != 0) return std::nullopt;
  const auto at = result->output.find(label);
  if (at == std::string::npos) return std::nullopt;
  return std::strtol(result->output.c_str() + at + label.size(), nullptr, 10);
}

}  // namespace vimbrel
