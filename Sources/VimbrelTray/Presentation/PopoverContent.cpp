// SPDX-License-Identifier: Apache-2.0
#include "Presentation/PopoverContent.h"

#include <algorithm>

#include "Presentation/TimeText.h"
#include "Say.h"
#include "Support/DurationText.h"

namespace vimbrel::desktop {
namespace {

void describePower(const PublishedState& state, PowerLine& line) {
  const auto& power = state.power;
  if (!power.batteryPercent) {
    line.power = power.isOnAC ? say("AC power") : say("Battery");
  } else {
    const auto percent = std::to_string(*power.batteryPercent);
    line.power = power.isOnAC ? say("AC power, battery %1 %", {percent}) : say("Battery %1 %", {percent});
  }
  if (power.isCharging) line.power += ", " + say("charging");
  if (power.timeRemainingMinutes && !power.isOnAC) {
    line.power += ", " + say("%1 left", {formatDuration(Seconds(60.0 * *power.timeRemainingMinutes))});
  }
  if (power.isLowPowerMode) line.power += ", " + say("low-power mode");
  if (power.isOnAC || !power.batteryPercent) return;
  if (*power.batteryPercent <= state.batteryFloorPercent) {
    line.powerTone = Tone::bad;
  } else if (*power.batteryPercent <= state.batteryFloorPercent + 5) {
    line.powerTone = Tone::warning;  // Soon no longer kept awake: worth a look while there is time.
  }
}

void describeHeat(SystemThermalState thermal, PowerLine& line) {
  switch (thermal) {
    case SystemThermalState::nominal:
      line.heat = say("Cool");
      return;
    case SystemThermalState::fair:
      line.heat = say("Warm");
      return;
    case SystemThermalState::serious:
      line.heat = say("Hot");
      line.heatTone = Tone::warning;
      return;
    case SystemThermalState::critical:
      break;
  }
  line.heat = say("Too hot: protection is off");
  line.heatTone = Tone::bad;
}

void describeLid(const PublishedState& state, PowerLine& line) {
  using Cover = LidCoverage::Cover;
  const auto place = state.isLidClosed ? say("Lid closed") : say("Lid open");
  switch (state.lid.cover) {
    case Cover::covered:
      line.lid = say("%1, may be closed", {place});
      line.lidTone = Tone::good;
      return;
    case Cover::uncovered:
      line.lid = say("%1, do not close it", {place});
      line.lidTone = Tone::warning;
      line.lidRemedy = retell(state.lid.remedy.empty() ? state.lid.explanation : state.lid.remedy);
      return;
    case Cover::off:
      line.lid = say("%1, not covered", {place});
      return;
    case Cover::notNeeded:
    case Cover::unknown:
      break;
  }
  line.lid = place;
}

void describeDecision(const PublishedState& state, PopoverContent& content, Instant now) {
  if (const auto* hold = state.decision.asHold()) {
    content.title = state.isSystemHeld ? say("Awake") : say("Not held");
    content.tone = state.isSystemHeld ? Tone::good : Tone::bad;
    content.reason = retell(hold->reason);
    content.countsFrom = state.protectionStartedAt;
  } else if (const auto* release = state.decision.asRelease()) {
    content.title = say("Sleep allowed");
    content.reason = retell(release->reason);
  } else if (const auto* blocked = state.decision.asBlocked()) {
    const bool isPaused = blocked->block == SafetyBlock::paused && content.display.isPaused;
    content.title = isPaused ? say("Paused") : say("Protection is off");
    content.tone = isCriticalSafety(blocked->block) ? Tone::bad : Tone::warning;
    content.reason =
        isPaused ? say("Until %1", {momentText(*state.pauseUntil, now)}) : retell(rawValue(blocked->block));
  }
}

void addNotices(const PublishedState& state, PopoverContent& content) {
  if (auto failing = failingHoldText(state); !failing.empty()) content.notices.push_back(std::move(failing));
  if (state.isSimulated) content.notices.push_back(say("Simulated: nothing keeps this machine awake"));
  for (const auto& warning : state.warnings) content.notices.push_back(retell(warning));
}

PopoverContent absentContent(LinkStatus link) {
  PopoverContent content;
  content.isAbsent = true;
  if (link == LinkStatus::absent) {
    content.title = say("Vimbrel is not running");
    content.reason = say("This machine sleeps as it always does, whatever agents do.");
    content.offer = PopoverContent::Offer::start;
    content.offerText = say("Start Vimbrel");
  } else {
    content.title = say("Vimbrel is starting…");
    content.offer = PopoverContent::Offer::waitForStart;
    content.offerText = say("Starting…");
  }
  return content;
}

}  // namespace

PowerLine makePowerLine(const PublishedState& state) {
  PowerLine line;
  line.floorPercent = static_cast<int>(state.batteryFloorPercent);
  if (state.power.batteryPercent) {
    line.batteryPercent = static_cast<int>(std::clamp<std::int64_t>(*state.power.batteryPercent, 0, 100));
  }
  line.isOnAC = state.power.isOnAC;
  line.isCharging = state.power.isCharging;
  describePower(state, line);
  describeHeat(state.thermal, line);
  describeLid(state, line);
  return line;
}

PopoverContent makePopoverContent(const Situation& situation, Instant now) {
  if (!situation.state) return absentContent(situation.link);
  const auto& state = *situation.state;
  PopoverContent content;
  content.display = displayStateOf(state, now);
  // The running time is counted by the view; two contents that differ in it alone are the same.
  content.display.elapsedProtectionSeconds = 0;
  content.display.pauseRemainingSeconds.reset();
  describeDecision(state, content, now);
  addNotices(state, content);
  for (const auto& family : familiesOf(state, now)) content.families.push_back(makeFamilyRow(family, now));
  if (content.families.empty()) {
    content.offer = PopoverContent::Offer::connectAgents;
    content.offerText = say("Connect an Agent…");
  }
  content.power = makePowerLine(state);
  content.masterEnabled = state.masterEnabled;
  content.manualHoldEnabled = state.manualHoldEnabled;
  content.preventDisplaySleep = state.preventDisplaySleep;
  return content;
}

}  // namespace vimbrel::desktop
