// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <expected>
#include <optional>
#include <string>
#include <string_view>

#include "Domain/DecodeError.h"
#include "Support/Instant.h"

namespace vimbrel {

/// What the lease store remembers across a restart: its state file is one such record.
struct DeepHoldStateRecord {
  bool isHolding = false;
  std::optional<std::string> activeLeaseId;
  std::optional<Instant> expiresAt;
  bool originalSleepDisabled = false;  ///< whether sleep was disabled before the hold began
  bool operator==(const DeepHoldStateRecord&) const = default;
};

/// Strict JSON with the field names as keys and dates as seconds since 2001. Any thread; nothing throws.
[[nodiscard]] std::string encode(const DeepHoldStateRecord& record);
[[nodiscard]] std::expected<DeepHoldStateRecord, DecodeError> decodeDeepHoldStateRecord(
    std::string_view text);

}  // namespace vimbrel
