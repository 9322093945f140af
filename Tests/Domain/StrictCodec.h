// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <nlohmann/json.hpp>

namespace vimbrel {

/// Requires that `full` and `least` are read, and `full` without any of its members that `least` lacks; but
/// not without one that `least` has, too, nor with one of another type.
inline void requireStrictReading(const nlohmann::json& full, const nlohmann::json& least,
                                 const std::function<bool(const nlohmann::json&)>& isRead) {
  EXPECT_TRUE(isRead(full)) << full;
  EXPECT_TRUE(isRead(least)) << least;
  for (const auto& [key, value] : full.items()) {
    auto broken = full;
    broken[key] = value.is_structured() ? nlohmann::json(7) : nlohmann::json::array();
    EXPECT_FALSE(isRead(broken)) << key << " has another type";
    broken.erase(key);
    EXPECT_EQ(isRead(broken), !least.contains(key)) << key << " is missing";
  }
}

}  // namespace vimbrel
