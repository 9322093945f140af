// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string_view>
#include <utility>

namespace vimbrel {

/// Tables that give each enumerator its texts: rows with members `value` and `raw`, in declaration order, so
/// that a row is found by index. Header-only and free of allocation: the relay uses them.

template <typename Row, std::size_t Count>
constexpr bool rowsFollowDeclaration(const std::array<Row, Count>& rows) {
  for (std::size_t i = 0; i < Count; ++i) {
    if (static_cast<std::size_t>(rows[i].value) != i) return false;
  }
  return true;
}

template <typename Row, std::size_t Count>
constexpr const Row& rowOf(const std::array<Row, Count>& rows, decltype(Row::value) value) {
  return rows[static_cast<std::size_t>(value)];
}

template <typename Row, std::size_t Count>
constexpr std::optional<decltype(Row::value)> valueWithRaw(const std::array<Row, Count>& rows,
                                                           std::string_view text) {
  for (const auto& row : rows) {
    if (row.raw == text) return row.value;
  }
  return std::nullopt;
}

/// ASCII letters only: every raw value is ASCII, and a locale must not change what an agent's name means.
constexpr bool equalIgnoringCase(std::string_view left, std::string_view right) {
  const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; };
  if (left.size() != right.size()) return false;
  for (std::size_t i = 0; i < left.size(); ++i) {
    if (lower(left[i]) != lower(right[i])) return false;
  }
  return true;
}

template <typename Row, std::size_t Count>
constexpr std::optional<decltype(Row::value)> valueWithRawIgnoringCase(const std::array<Row, Count>& rows,
                                                                       std::string_view text) {
  for (const auto& row : rows) {
    if (equalIgnoringCase(row.raw, text)) return row.value;
  }
  return std::nullopt;
}

}  // namespace vimbrel
