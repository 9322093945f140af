// SPDX-License-Identifier: Apache-2.0
#include "Domain/SafetyBlock.h"

#include "Domain/RawValueTable.h"
#include "Support/Sentence.h"

namespace vimbrel {
namespace {

struct BlockRow {
  SafetyBlock value;
  std::string_view raw;
  bool critical;
};

constexpr std::array<BlockRow, 6> blocks{{
    {SafetyBlock::masterDisabled, sentence("Master switch disabled"), false},
    {SafetyBlock::paused, sentence("Protection paused"), false},
    {SafetyBlock::batteryBelowFloor, sentence("Battery level below safety cutoff"), true},
    {SafetyBlock::acDisconnected, sentence("AC power disconnected (AC-only mode)"), false},
    {SafetyBlock::thermalCritical, sentence("Thermal critical safety cutoff"), true},
    {SafetyBlock::manualSleepRequested, sentence("Manual system sleep requested"), true},
}};

static_assert(rowsFollowDeclaration(blocks));

}  // namespace

std::string_view rawValue(SafetyBlock block) { return rowOf(blocks, block).raw; }
std::optional<SafetyBlock> safetyBlockFromRawValue(std::string_view text) {
  return valueWithRaw(blocks, text);
}
bool isCriticalSafety(SafetyBlock block) { return rowOf(blocks, block).critical; }

}  // namespace vimbrel
