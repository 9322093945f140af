// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>

#include "Domain/HookEvent.h"
#include "Domain/ModelRateCard.h"
#include "Domain/UsageEvent.h"

namespace vimbrel {

/// The usage that a hook event carries, with a fresh id and priced; absent when it counts no tokens (cached
/// ones alone do not count) and names no model.
[[nodiscard]] std::optional<UsageEvent> toUsageEvent(const HookEvent& event,
                                                     const ModelRateCard& card = ModelRateCard::builtIn());

}  // namespace vimbrel
