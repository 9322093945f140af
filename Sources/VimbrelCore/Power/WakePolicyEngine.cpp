// SPDX-License-Identifier: Apache-2.0
#include "Power/WakePolicyEngine.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <utility>

#include "Domain/AgentType.h"
#include "Domain/RawValueTable.h"
#include "Support/DurationText.h"
#include "Support/Sentence.h"

namespace vimbrel {
namespace {

/// The sessions that count as busy.
struct Activity {
  std::int64_t count = 0;
  std::int64_t leftWaiting = 0;  ///< those whose user lets them wait too long to count
  std::array<bool, allAgentTypes.size()> agents{};
  Instant lastEventAt{Seconds{-std::numeric_limits<double>::infinity()}};  ///< the youngest event of theirs

  explicit Activity(const PolicyEvaluationContext& context) {
    const double limit = context.config.staleSessionTTLSeconds;
    const auto& grace = context.config.waitingGraceSeconds;
    for (const auto& session : context.sessions.entries()) {
      const double silent = (context.now - session->lastEventAt).count();
      if (!session->isWorking() || !(silent <= limit)) continue;
      if (grace && session->state == AgentState::waiting && silent > *grace) {
        ++leftWaiting;
        continue;
      }
      ++count;
      agents[static_cast<std::size_t>(session->agentType)] = true;
      lastEventAt = std::max(lastEventAt, session->lastEventAt);
    }
  }

  [[nodiscard]] std::string reason() const {
    std::vector<std::string_view> names;
    for (const auto agent : allAgentTypes) {
      if (agents[static_cast<std::size_t>(agent)]) names.push_back(displayName(agent));
    }
    std::ranges::sort(names);
    const auto repeated = std::ranges::unique(names);
    names.erase(repeated.begin(), repeated.end());
    std::string text;
    for (const auto name : names) {
      if (!text.empty()) text += ", ";
      text += name;
    }
    return sentence("%1 working", {text});
  }
};

/// What a rule may look at. The session table is walked when the first rule asks for it.
class Inputs {
 public:
  explicit Inputs(const PolicyEvaluationContext& context) : context(context), config(context.config) {}
  const PolicyEvaluationContext& context;
  const PolicyConfiguration& config;

  [[nodiscard]] const Activity& activity() const {
    if (!activity_) activity_.emplace(context);
    return *activity_;
  }
  [[nodiscard]] WakeDecision hold(std::string reason, std::int64_t count) const {
    return WakeDecision::hold(std::move(reason), count,
                              config.deepLidProtectionEnabled || context.commandHoldCoversLid);
  }

 private:
  mutable std::optional<Activity> activity_;
};

using Verdict = std::optional<WakeDecision>;

std::string text(std::int64_t number) { return std::to_string(number); }
std::string_view onOff(bool value) { return value ? sentence("on") : sentence("off"); }

Verdict blockedIf(bool condition, SafetyBlock block) {
  if (!condition) return std::nullopt;
  return WakeDecision::blocked(block);
}

// ---- Master switch

Verdict masterSwitch(const Inputs& in) {
  return blockedIf(!in.config.masterEnabled, SafetyBlock::masterDisabled);
}

void explainMasterSwitch(const Inputs& in, PolicyRuleTrace& trace) {
  trace.saw = sentence("the master switch is %1", {onOff(in.config.masterEnabled)});
  trace.wouldChange = in.config.masterEnabled ? sentence("switching masterEnabled off")
                                              : sentence("switching masterEnabled on");
}

// ---- Pause

Verdict pause(const Inputs& in) {
  const auto& until = in.context.pauseUntil;
  return blockedIf(until && in.context.now < *until, SafetyBlock::paused);
}

void explainPause(const Inputs& in, PolicyRuleTrace& trace) {
  const auto& until = in.context.pauseUntil;
  if (!until) {
    trace.saw = sentence("no pause");
  } else {
    trace.saw = trace.says ? sentence("paused until %1", {formatIso8601(*until)})
                           : sentence("a pause that ended at %1", {formatIso8601(*until)});
  }
  trace.wouldChange = trace.says ? sentence("the end of the pause, or resuming") : sentence("pausing");
  if (trace.says) trace.changesAt = until;
}

// ---- Heat

Verdict heat(const Inputs& in) {
  return blockedIf(in.context.thermalState == SystemThermalState::critical, SafetyBlock::thermalCritical);
}

void explainHeat(const Inputs& in, PolicyRuleTrace& trace) {
  trace.saw = sentence("thermal pressure is %1", {rawValue(in.context.thermalState)});
  trace.wouldChange = trace.says ? sentence("thermal pressure below critical")
                                 : sentence("thermal pressure reaching critical");
}

// ---- AC only

Verdict acOnly(const Inputs& in) {
  return blockedIf(in.config.onlyOnAC && !in.context.powerSource.isOnAC, SafetyBlock::acDisconnected);
}

void explainAcOnly(const Inputs& in, PolicyRuleTrace& trace) {
  const bool isOnAC = in.context.powerSource.isOnAC;
  trace.saw = sentence("AC-only mode is %1, running from %2",
                       {onOff(in.config.onlyOnAC), isOnAC ? sentence("AC power") : sentence("the battery")});
  if (trace.says) {
    trace.wouldChange = sentence("connecting AC power, or switching onlyOnAC off");
  } else if (in.config.onlyOnAC) {
    trace.wouldChange = sentence("disconnecting AC power");
  } else {
    trace.wouldChange = isOnAC ? sentence("switching onlyOnAC on and disconnecting AC power")
                               : sentence("switching onlyOnAC on");
  }
}

// ---- Battery floor

/// Settings keep these sums small; a document may hold anything.
std::int64_t saturatingSum(std::int64_t left, std::int64_t right) {
  std::int64_t sum = 0;
  if (!__builtin_add_overflow(left, right, &sum)) return sum;
  return right > 0 ? std::numeric_limits<std::int64_t>::max() : std::numeric_limits<std::int64_t>::min();
}

/// The lowest charge at which protection is allowed on battery.
std::int64_t lowestAllowedCharge(const Inputs& in) {
  const bool wasCut = in.context.isCurrentlyBatteryBlocked;
  return saturatingSum(in.config.batteryFloorPercent, wasCut ? in.config.batteryHysteresisPercent : 1);
}

Verdict batteryFloor(const Inputs& in) {
  const auto& power = in.context.powerSource;
  if (!power.batteryPercent || power.isOnAC || power.isCharging) return std::nullopt;
  return blockedIf(*power.batteryPercent < lowestAllowedCharge(in), SafetyBlock::batteryBelowFloor);
}

void explainBatteryFloor(const Inputs& in, PolicyRuleTrace& trace) {
  const auto& power = in.context.powerSource;
  const auto charge = power.batteryPercent ? text(*power.batteryPercent) + " %" : sentence("charge unknown");
  trace.saw = power.isOnAC ? sentence("%1 on AC power", {charge}) : sentence("%1 on battery", {charge});
  if (power.isCharging) trace.saw = sentence("%1, charging", {trace.saw});
  trace.saw = sentence("%1, floor %2 %", {trace.saw, text(in.config.batteryFloorPercent)});
  const auto allowed = text(lowestAllowedCharge(in));
  if (in.context.isCurrentlyBatteryBlocked) {
    trace.saw = sentence("%1, cut off until %2 %", {trace.saw, allowed});
  }
  if (trace.says) {
    trace.wouldChange = sentence("AC power, charging, or a charge of %1 %", {allowed});
  } else if (!power.batteryPercent) {
    trace.wouldChange = sentence("nothing on a machine whose charge is unknown");
  } else {
    trace.wouldChange = sentence("a charge below %1 % on battery", {allowed});
  }
}

// ---- Longest hold

Verdict longestHold(const Inputs& in) {
  // A command's hold has an end of its own.
  if (!in.context.holdExpiredAt || !in.context.commandHold.empty()) return std::nullopt;
  return WakeDecision::release(sentence("Longest hold reached"));
}

void explainLongestHold(const Inputs& in, PolicyRuleTrace& trace) {
  const auto& limit = in.config.maximumHoldSeconds;
  if (!limit) {
    trace.saw = sentence("no longest hold is set");
    trace.wouldChange = sentence("setting maximumHoldSeconds, and a hold that lasts as long");
    return;
  }
  trace.saw = sentence("a hold may last %1 without a fresh event", {formatDuration(Seconds{*limit})});
  if (const auto& expired = in.context.holdExpiredAt) {
    trace.saw = sentence("%1, reached at %2", {trace.saw, formatIso8601(*expired)});
    trace.wouldChange = sentence("an agent's next event");
  } else {
    trace.wouldChange = sentence("a hold that lasts as long");
  }
}

// ---- Manual hold

Verdict manualHold(const Inputs& in) {
  if (in.config.manualHoldEnabled) return in.hold(sentence("Manual hold requested"), in.activity().count);
  if (!in.context.commandHold.empty()) {
    return in.hold(sentence("Running %1", {in.context.commandHold}), in.activity().count);
  }
  return std::nullopt;
}

void explainManualHold(const Inputs& in, PolicyRuleTrace& trace) {
  trace.saw = sentence("manual hold is %1", {onOff(in.config.manualHoldEnabled)});
  trace.wouldChange = in.config.manualHoldEnabled ? sentence("switching manual hold off")
                                                  : sentence("switching manual hold on");
  if (in.context.commandHold.empty()) return;
  trace.saw = sentence("%1, and a command runs under a hold: %2", {trace.saw, in.context.commandHold});
  if (!in.config.manualHoldEnabled) trace.wouldChange = sentence("the end of the command or of its hold");
}

// ---- Agents at work

Verdict agentsAtWork(const Inputs& in) {
  if (in.activity().count == 0) return std::nullopt;
  return in.hold(in.activity().reason(), in.activity().count);
}

void explainAgentsAtWork(const Inputs& in, PolicyRuleTrace& trace) {
  const auto total = static_cast<std::int64_t>(in.context.sessions.size());
  trace.saw =
      sentenceCount(total, "%2 of %1 session at work and heard of within %3",
                    "%2 of %1 sessions at work and heard of within %3",
                    {text(in.activity().count), formatDuration(Seconds{in.config.staleSessionTTLSeconds})});
  if (in.activity().leftWaiting > 0) {
    trace.saw = sentence("%1, %2 left waiting for longer than %3",
                         {trace.saw, text(in.activity().leftWaiting),
                          formatDuration(Seconds{in.config.waitingGraceSeconds.value_or(0)})});
  }
  if (trace.says) {
    trace.wouldChange = sentence("every agent stopping, or silence of them all until the time limit");
    trace.changesAt = in.activity().lastEventAt + Seconds{in.config.staleSessionTTLSeconds};
  } else {
    trace.wouldChange = sentence("an agent starting to work");
  }
}

// ---- Release debounce

/// Up to the next whole number, and within its type whatever a document asked for.
std::int64_t wholeSecondsUp(double seconds) {
  constexpr double limit = 9.2e18;
  return seconds < limit ? static_cast<std::int64_t>(std::ceil(seconds))
                         : std::numeric_limits<std::int64_t>::max();
}

Verdict releaseDebounce(const Inputs& in) {
  const auto& stoppedAt = in.context.lastActiveAgentStoppedAt;
  if (!stoppedAt || in.activity().count != 0) return std::nullopt;
  const double elapsed = (in.context.now - *stoppedAt).count();
  const double debounce = in.config.releaseDebounceSeconds;
  if (!(elapsed >= 0 && elapsed < debounce)) return std::nullopt;
  return in.hold(sentence("Release debounce (%1s)", {text(wholeSecondsUp(debounce - elapsed))}), 0);
}

void explainReleaseDebounce(const Inputs& in, PolicyRuleTrace& trace) {
  const auto& stoppedAt = in.context.lastActiveAgentStoppedAt;
  const Seconds debounce{in.config.releaseDebounceSeconds};
  if (in.activity().count != 0) {
    trace.saw = sentence("agents are at work");
    trace.wouldChange = sentence("every agent stopping");
    return;
  }
  if (!stoppedAt) {
    trace.saw = sentence("no agent has stopped yet");
    trace.wouldChange = sentence("an agent that works and then stops");
    return;
  }
  const auto elapsed = in.context.now - *stoppedAt;
  trace.saw = elapsed < Seconds{0} ? sentence("the last agent stops in the future, release delay %1",
                                              {formatDuration(debounce)})
                                   : sentence("the last agent stopped %1 ago, release delay %2",
                                              {formatDuration(elapsed), formatDuration(debounce)});
  trace.wouldChange =
      trace.says ? sentence("the end of the delay") : sentence("an agent that works and then stops");
  if (trace.says) trace.changesAt = *stoppedAt + debounce;
  if (elapsed < Seconds{0} && debounce > Seconds{0}) trace.changesAt = *stoppedAt;
}

// ---- No reason to hold

Verdict noReasonToHold(const Inputs& /*in*/) {
  return WakeDecision::release(sentence("No active agent sessions"));
}

void explainNoReasonToHold(const Inputs& /*in*/, PolicyRuleTrace& trace) {
  trace.saw = sentence("nothing else");
  trace.wouldChange = sentence("any rule above");
}

/// A rule's verdict, and its account. The account is given the trace with `says` filled in.
struct Rule {
  PolicyRule value;
  std::string_view raw;
  std::string_view label;
  Verdict (*decide)(const Inputs&);
  void (*explain)(const Inputs&, PolicyRuleTrace&);
};

constexpr std::array<Rule, 10> rules{{
    {PolicyRule::masterSwitch, "masterSwitch", sentence("Master switch"), masterSwitch, explainMasterSwitch},
    {PolicyRule::pause, "pause", sentence("Pause"), pause, explainPause},
    {PolicyRule::heat, "heat", sentence("Heat"), heat, explainHeat},
    {PolicyRule::acOnly, "acOnly", sentence("AC only"), acOnly, explainAcOnly},
    {PolicyRule::batteryFloor, "batteryFloor", sentence("Battery floor"), batteryFloor, explainBatteryFloor},
    {PolicyRule::longestHold, "longestHold", sentence("Longest hold"), longestHold, explainLongestHold},
    {PolicyRule::manualHold, "manualHold", sentence("Manual hold"), manualHold, explainManualHold},
    {PolicyRule::agentsAtWork, "agentsAtWork", sentence("Agents at work"), agentsAtWork, explainAgentsAtWork},
    {PolicyRule::releaseDebounce, "releaseDebounce", sentence("Release delay"), releaseDebounce,
     explainReleaseDebounce},
    {PolicyRule::noReasonToHold, "noReasonToHold", sentence("Otherwise"), noReasonToHold,
     explainNoReasonToHold},
}};
static_assert(rowsFollowDeclaration(rules));

}  // namespace

std::string_view rawValue(PolicyRule rule) { return rowOf(rules, rule).raw; }
std::string_view displayLabel(PolicyRule rule) { return rowOf(rules, rule).label; }

std::string_view rawValue(PolicyRuleOutcome outcome) {
  switch (outcome) {
    case PolicyRuleOutcome::passed:
      return "passed";
    case PolicyRuleOutcome::decided:
      return "decided";
    case PolicyRuleOutcome::overruled:
      break;
  }
  return "overruled";
}

WakeDecision WakePolicyEngine::evaluate(const PolicyEvaluationContext& context) const {
  const Inputs inputs(context);
  for (const auto& rule : rules) {
    if (auto verdict = rule.decide(inputs)) return *std::move(verdict);
  }
  std::unreachable();  // the last rule always applies
}

PolicyExplanation WakePolicyEngine::explain(const PolicyEvaluationContext& context) const {
  const Inputs inputs(context);
  std::optional<WakeDecision> decision;
  std::vector<PolicyRuleTrace> traces;
  for (const auto& rule : rules) {
    auto& trace = traces.emplace_back();
    trace.rule = rule.value;
    trace.says = rule.decide(inputs);
    if (trace.says) {
      trace.outcome = decision ? PolicyRuleOutcome::overruled : PolicyRuleOutcome::decided;
      if (!decision) decision = trace.says;
    }
    rule.explain(inputs, trace);
  }
  return {*std::move(decision), std::move(traces)};
}

}  // namespace vimbrel
