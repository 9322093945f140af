// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <expected>
#include <string>

namespace vimbrel {

enum class LoginItemStatus : std::uint8_t { notRegistered, enabled, requiresApproval, notFound };

/// The application as something that the desktop starts at login. Queue: the main queue; touches small files.
class LoginItem {
 public:
  virtual ~LoginItem() = default;
  [[nodiscard]] virtual LoginItemStatus status() = 0;
  /// The error is a sentence.
  [[nodiscard]] virtual std::expected<void, std::string> registerItem() = 0;
  [[nodiscard]] virtual std::expected<void, std::string> unregisterItem() = 0;
};

}  // namespace vimbrel
