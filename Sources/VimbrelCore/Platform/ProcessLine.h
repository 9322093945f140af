// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <string_view>
#include <vector>

#include "Platform/ProcessList.h"

namespace vimbrel {

/// Reads one line of `ps -axo pid,command`: white space around it is trimmed, the pid ends at the first
/// space, the rest is the command. Absent for the header, for blank lines, for a pid that is no decimal
/// signed 32-bit number, and for a line without a command.
[[nodiscard]] std::optional<ProcessEntry> parseProcessLine(std::string_view line);

/// Appends the entries of a whole listing, split at every newline character of Unicode: a program that puts
/// one into its title makes two lines of it, whoever reads the listing.
void appendProcessLines(std::string_view listing, std::vector<ProcessEntry>& entries);

/// True when every byte belongs to a well-formed UTF-8 sequence.
[[nodiscard]] bool isValidUtf8(std::string_view text);

}  // namespace vimbrel
