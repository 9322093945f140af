// SPDX-License-Identifier: Apache-2.0
#include "Domain/AgentState.h"

#include "Domain/RawValueTable.h"
#include "Support/Sentence.h"

namespace vimbrel {
namespace {

struct StateRow {
  AgentState value;
  std::string_view raw;
  std::string_view label;
};

constexpr std::array<StateRow, 7> states{{
    {AgentState::unknown, "unknown", sentence("Unknown")},
    {AgentState::idle, "idle", sentence("Idle")},
    {AgentState::working, "working", sentence("Working")},
    {AgentState::waiting, "waiting", sentence("Waiting")},
    {AgentState::completed, "completed", sentence("Completed")},
    {AgentState::error, "error", sentence("Error")},
    {AgentState::stale, "stale", sentence("Stale")},
}};

static_assert(rowsFollowDeclaration(states));

}  // namespace

std::string_view rawValue(AgentState state) { return rowOf(states, state).raw; }
std::string_view displayLabel(AgentState state) { return rowOf(states, state).label; }
std::optional<AgentState> agentStateFromRawValue(std::string_view text) { return valueWithRaw(states, text); }
AgentState agentStateFromLenientText(std::string_view text) {
  return valueWithRawIgnoringCase(states, text).value_or(AgentState::unknown);
}

}  // namespace vimbrel
