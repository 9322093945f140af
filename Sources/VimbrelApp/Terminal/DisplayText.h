// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace vimbrel {

/// How many terminal columns a text takes: wide East Asian characters and emoji take two, combining marks
/// none. The text must be free of control characters (see `displayable`).
[[nodiscard]] std::size_t displayWidth(std::string_view text);

/// The text with control characters and malformed UTF-8 replaced by "?": what agents report must not steer
/// the terminal.
[[nodiscard]] std::string displayable(std::string_view text);

/// At most `width` columns of the text, ended by "…" when something is missing.
[[nodiscard]] std::string clipped(std::string_view text, std::size_t width);

/// Exactly `width` columns: clipped, or filled up with blanks.
[[nodiscard]] std::string padded(std::string_view text, std::size_t width);

/// Broken into lines of at most `width` columns, at blanks where there are some. Without a limit (0) one
/// line.
[[nodiscard]] std::vector<std::string> wrapped(std::string_view text, std::size_t width);

}  // namespace vimbrel
