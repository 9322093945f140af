// SPDX-License-Identifier: Apache-2.0
#include "Domain/ThermalState.h"

#include "Domain/RawValueTable.h"
#include "Support/Sentence.h"

namespace vimbrel {
namespace {

struct ThermalRow {
  SystemThermalState value;
  std::string_view raw;
};

constexpr std::array<ThermalRow, 4> states{{
    {SystemThermalState::nominal, sentence("nominal")},
    {SystemThermalState::fair, sentence("fair")},
    {SystemThermalState::serious, sentence("serious")},
    {SystemThermalState::critical, sentence("critical")},
}};

static_assert(rowsFollowDeclaration(states));

}  // namespace

std::string_view rawValue(SystemThermalState state) { return rowOf(states, state).raw; }
std::optional<SystemThermalState> systemThermalStateFromRawValue(std::string_view text) {
  return valueWithRaw(states, text);
}

}  // namespace vimbrel
