// SPDX-License-Identifier: Apache-2.0
#include "Domain/VimbrelVisualState.h"

#include <algorithm>

#include "Domain/RawValueTable.h"
#include "Support/Sentence.h"

namespace vimbrel {
namespace {

struct VisualRow {
  VimbrelVisualState value;
  std::string_view raw;
  std::string_view label;
  bool animated;
  double frameSeconds;
};

constexpr std::array<VisualRow, 5> states{{
    {VimbrelVisualState::idle, "idle", sentence("Idle"), false, 1.0},
    {VimbrelVisualState::working, "working", sentence("Working"), true, 0.22},
    {VimbrelVisualState::waiting, "waiting", sentence("Waiting"), true, 0.45},
    {VimbrelVisualState::completed, "completed", sentence("Completed"), true, 0.35},
    {VimbrelVisualState::error, "error", sentence("Error"), false, 1.0},
}};

static_assert(rowsFollowDeclaration(states));

}  // namespace

std::string_view rawValue(VimbrelVisualState state) { return rowOf(states, state).raw; }
std::string_view displayLabel(VimbrelVisualState state) { return rowOf(states, state).label; }
std::optional<VimbrelVisualState> visualStateFromRawValue(std::string_view text) {
  return valueWithRaw(states, text);
}
bool isAnimated(VimbrelVisualState state) { return rowOf(states, state).animated; }
Seconds defaultFrameDuration(VimbrelVisualState state) { return Seconds{rowOf(states, state).frameSeconds}; }

VimbrelVisualState visualStateFor(AgentState state) {
  switch (state) {
    case AgentState::working:
      return VimbrelVisualState::working;
    case AgentState::waiting:
      return VimbrelVisualState::waiting;
    case AgentState::completed:
      return VimbrelVisualState::completed;
    case AgentState::error:
      return VimbrelVisualState::error;
    case AgentState::unknown:
    case AgentState::idle:
    case AgentState::stale:
      break;
  }
  return VimbrelVisualState::idle;
}

VimbrelVisualState aggregateVisualState(std::span<const std::shared_ptr<const AgentSession>> sessions,
                                        const WakeDecision& decision) {
  if (decision.isBlocked()) return VimbrelVisualState::error;
  for (const auto state :
       {AgentState::working, AgentState::waiting, AgentState::error, AgentState::completed}) {
    const bool present = std::any_of(sessions.begin(), sessions.end(),
                                     [state](const auto& session) { return session->state == state; });
    if (present) return visualStateFor(state);
  }
  return VimbrelVisualState::idle;
}

}  // namespace vimbrel
