// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <span>
#include <string_view>

namespace vimbrel {

/// The candidate that a person who typed `text` probably meant: the one with the fewest typing errors
/// (letters left out, added, replaced or swapped with their neighbour, ignoring case), if these are at most a
/// third of its length. Absent when nothing is close.
[[nodiscard]] std::optional<std::string_view> closestMatch(std::string_view text,
                                                           std::span<const std::string_view> candidates);

}  // namespace vimbrel
