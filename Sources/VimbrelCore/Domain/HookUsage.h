// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>

#include "Domain/HookEvent.h"
#include "Domain/UsageEvent.h"

namespace vimbrel {

/// The usage that a hook event carries, with a fresh id, priced by the built-in rate card; absent when it
/// counts no tokens (cached ones alone do not count) and names no model.
[[nodiscard]] std::optional<UsageEvent> toUsageEvent(const HookEvent& event);

}  // namespace vimbrel
