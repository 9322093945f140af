// SPDX-License-Identifier: Apache-2.0
#include "Power/WakePolicyEngine.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <limits>
#include <random>

namespace vimbrel {
namespace {

const Instant noon = instantFromUnixSeconds(1'800'000'000);

AgentSession session(AgentType agent, AgentState state, double ageSeconds = 0) {
  static int serial = 0;
  AgentSession result;
  result.id = "s" + std::to_string(++serial);
  result.agentType = agent;
  result.state = state;
  result.lastEventAt = noon - Seconds{ageSeconds};
  return result;
}

using Context = PolicyEvaluationContext;
using Change = std::function<void(Context&)>;
constexpr double infinity = std::numeric_limits<double>::infinity();
const AgentSession claudeAtWork = session(AgentType::claude, AgentState::working);

const Change masterOff = [](Context& c) { c.config.masterEnabled = false; };
const Change critical = [](Context& c) { c.thermalState = SystemThermalState::critical; };
const Change acOnly = [](Context& c) { c.config.onlyOnAC = true; };
const Change manual = [](Context& c) { c.config.manualHoldEnabled = true; };
const Change command = [](Context& c) { c.commandHold = "make"; };
const Change expired = [](Context& c) { c.holdExpiredAt = noon; };

Change sessions(std::vector<AgentSession> list) {
  return [list = std::move(list)](Context& c) { c.sessions = SessionSnapshot::of(list); };
}
const Change working = sessions({claudeAtWork});

Change onBattery(std::int64_t percent) {
  return [percent](Context& c) { c.powerSource = {percent, false, false, false, std::nullopt}; };
}
Change floorAt(std::int64_t percent, bool wasCut = false, std::int64_t hysteresis = 3) {
  return [=](Context& c) {
    c.config.batteryFloorPercent = percent;
    c.config.batteryHysteresisPercent = hysteresis;
    c.isCurrentlyBatteryBlocked = wasCut;
  };
}
Change stopped(double secondsAgo, double delay = 30) {
  return [=](Context& c) {
    c.lastActiveAgentStoppedAt = noon - Seconds{secondsAgo};
    c.config.releaseDebounceSeconds = delay;
  };
}

/// An ordinary machine at noon, on AC power, cool, with default settings but for the deep hold, and changed.
Context contextOf(const std::vector<Change>& changes) {
  Context context;
  context.now = noon;
  context.config.deepLidProtectionEnabled = false;
  for (const auto& change : changes) change(context);
  return context;
}

WakeDecision hold(std::string reason, std::int64_t count) {
  return WakeDecision::hold(std::move(reason), count, false);
}
WakeDecision blocked(SafetyBlock block) { return WakeDecision::blocked(block); }

TEST(WakePolicy, decidesByTheFirstRuleThatApplies) {
  constexpr auto most = std::numeric_limits<std::int64_t>::max();
  constexpr auto least = std::numeric_limits<std::int64_t>::min();
  constexpr double nothing = std::numeric_limits<double>::quiet_NaN();
  const Change paused = [](Context& c) { c.pauseUntil = noon + Seconds{1}; };
  const auto silentFor = [](double seconds) {
    return sessions({session(AgentType::claude, AgentState::working, seconds)});
  };
  const auto release = WakeDecision::release("No active agent sessions");
  const auto claudeWorks = hold("Claude Code working", 1);
  const auto longest = WakeDecision::release("Longest hold reached");
  const auto endless = hold("Release debounce (9223372036854775807s)", 0);
  struct Case {
    const char* name;
    std::vector<Change> changes;
    WakeDecision expected;
  };
  const std::vector<Case> cases{
      {"nothing happens", {}, release},
      {"the master switch wins over a pause", {masterOff, paused}, blocked(SafetyBlock::masterDisabled)},
      {"a pause wins over heat", {paused, critical}, blocked(SafetyBlock::paused)},
      {"heat wins over AC-only", {critical, acOnly, onBattery(90)}, blocked(SafetyBlock::thermalCritical)},
      {"AC-only wins over the floor", {acOnly, onBattery(1)}, blocked(SafetyBlock::acDisconnected)},
      {"the floor wins over a manual hold", {onBattery(5), manual}, blocked(SafetyBlock::batteryBelowFloor)},
      {"a floor that no sum can hold", {onBattery(0), floorAt(least, true, -1)}, release},
      {"one at the other end", {onBattery(0), floorAt(most, true)}, blocked(SafetyBlock::batteryBelowFloor)},
      {"a manual hold needs no agent", {manual}, hold("Manual hold requested", 0)},
      {"a manual hold counts the agents", {manual, working}, hold("Manual hold requested", 1)},
      {"a hold that lasted too long ends", {working, expired}, longest},
      {"but not the hold of a command", {expired, command}, hold("Running make", 0)},
      {"silent for exactly the limit", {silentFor(900)}, claudeWorks},
      {"silent for longer", {silentFor(901)}, release},
      {"work wins over the delay", {working, stopped(1)}, claudeWorks},
      {"the delay is rounded up", {stopped(10.5)}, hold("Release debounce (20s)", 0)},
      {"the delay's last second", {stopped(29)}, hold("Release debounce (1s)", 0)},
      {"the delay is over", {stopped(30)}, release},
      {"a stop in the future", {stopped(-5)}, release},
      {"an endless delay", {stopped(1, infinity)}, endless},
      {"a huge delay", {stopped(1, 1e300)}, endless},
      {"a delay that is no number", {stopped(1, nothing)}, release},
      {"a stop at no time", {stopped(nothing)}, release},
  };
  for (const auto& [name, changes, expected] : cases) {
    EXPECT_EQ(WakePolicyEngine().evaluate(contextOf(changes)), expected) << name;
  }
}

TEST(WakePolicy, namesTheAgentsAtWorkInOrderAndOnce) {
  std::vector<AgentSession> list{session(AgentType::codex, AgentState::waiting), claudeAtWork,
                                 session(AgentType::claude, AgentState::working)};
  for (const auto state :
       {AgentState::idle, AgentState::completed, AgentState::error, AgentState::stale, AgentState::unknown}) {
    list.push_back(session(AgentType::gemini, state));
  }
  EXPECT_EQ(WakePolicyEngine().evaluate(contextOf({sessions(list)})),
            hold("Claude Code, Codex CLI working", 3));
}

/// Anything a context can hold, with edges more often than chance gives them.
PolicyEvaluationContext randomContext(std::mt19937& random) {
  const auto chance = [&](int percent) { return static_cast<int>(random() % 100) < percent; };
  const auto pick = [&](std::initializer_list<double> values) {
    return values.begin()[random() % values.size()];
  };
  PolicyEvaluationContext context;
  context.now = noon;
  context.config.masterEnabled = chance(85);
  context.config.manualHoldEnabled = chance(20);
  context.config.batteryFloorPercent =
      chance(5) ? std::numeric_limits<std::int64_t>::max() : 5 + random() % 46;
  context.config.onlyOnAC = chance(20);
  context.config.releaseDebounceSeconds = pick({0, 30, 30, 60, infinity, std::nan("")});
  context.config.deepLidProtectionEnabled = chance(50);
  context.powerSource.isOnAC = chance(50);
  context.powerSource.isCharging = chance(20);
  if (chance(85)) context.powerSource.batteryPercent = random() % 101;
  context.thermalState = static_cast<SystemThermalState>(random() % 4);
  if (chance(25)) context.pauseUntil = noon + Seconds{pick({-1, 0, 1, 600, infinity, std::nan("")})};
  if (chance(50)) context.lastActiveAgentStoppedAt = noon - Seconds{pick({-5, 0, 10.5, 29.9, 30, 1e9})};
  context.isCurrentlyBatteryBlocked = chance(30);
  std::vector<AgentSession> sessions;
  for (auto count = random() % 5; count > 0; --count) {
    sessions.push_back(session(static_cast<AgentType>(random() % allAgentTypes.size()),
                               static_cast<AgentState>(random() % allAgentStates.size()),
                               pick({-10, 0, 899, 900, 901, infinity, std::nan("")})));
  }
  context.sessions = SessionSnapshot::of(sessions);
  return context;
}

/// The safety contract in its own words, apart from the order of rules.
bool isSafetyBlocked(const PolicyEvaluationContext& c) {
  const auto& power = c.powerSource;
  const bool low =
      power.batteryPercent && !power.isOnAC && !power.isCharging &&
      (*power.batteryPercent <= c.config.batteryFloorPercent ||
       (c.isCurrentlyBatteryBlocked && *power.batteryPercent < c.config.batteryFloorPercent + 3));
  return !c.config.masterEnabled || (c.pauseUntil && noon < *c.pauseUntil) ||
         c.thermalState == SystemThermalState::critical || (c.config.onlyOnAC && !power.isOnAC) || low;
}

TEST(WakePolicy, keepsTheSafetyContractAndExplainsWhatItDecided) {
  std::mt19937 random(20260131);
  const WakePolicyEngine engine;
  int holds = 0;
  for (int i = 0; i < 20'000; ++i) {
    const auto context = randomContext(random);
    const auto decision = engine.evaluate(context);
    ASSERT_EQ(decision.isBlocked(), isSafetyBlocked(context)) << decision.statusDescription();
    if (decision.isHolding()) {
      ++holds;
      ASSERT_EQ(decision.asHold()->requiresDeepHold, context.config.deepLidProtectionEnabled);
    }

    const auto explanation = engine.explain(context);
    ASSERT_EQ(explanation.decision, decision);
    ASSERT_EQ(std::ranges::count(explanation.rules, PolicyRuleOutcome::decided, &PolicyRuleTrace::outcome),
              1);
    bool decided = false;
    for (const auto& trace : explanation.rules) {
      ASSERT_EQ(trace.outcome == PolicyRuleOutcome::passed, !trace.says);
      ASSERT_EQ(trace.outcome == PolicyRuleOutcome::overruled, decided && trace.says);
      if (trace.outcome == PolicyRuleOutcome::decided) {
        decided = true;
        ASSERT_EQ(*trace.says, decision);
      }
      ASSERT_FALSE(trace.saw.empty());
      ASSERT_FALSE(trace.wouldChange.empty());
      ASSERT_FALSE(trace.says && trace.changesAt && *trace.changesAt < context.now);
    }
  }
  EXPECT_GT(holds, 2'000) << "the random contexts hold too rarely to prove anything";
}

TEST(WakePolicy, explainsWithTheValuesThatItSaw) {
  const auto trace = [](PolicyRule rule, const std::vector<Change>& changes) {
    return WakePolicyEngine().explain(contextOf(changes)).rules.at(static_cast<std::size_t>(rule));
  };
  const auto battery = trace(PolicyRule::batteryFloor, {onBattery(16), floorAt(15, true)});
  EXPECT_EQ(battery.saw, "16 % on battery, floor 15 %, cut off until 18 %");
  EXPECT_EQ(battery.wouldChange, "AC power, charging, or a charge of 18 %");
  EXPECT_EQ(battery.changesAt, std::nullopt);

  const auto delay = trace(PolicyRule::releaseDebounce, {stopped(10.5)});
  EXPECT_EQ(delay.saw, "the last agent stopped 10 s ago, release delay 30 s");
  EXPECT_EQ(delay.changesAt, noon + Seconds{19.5});

  const auto agents =
      trace(PolicyRule::agentsAtWork, {sessions({session(AgentType::aider, AgentState::working, 100),
                                                 session(AgentType::codex, AgentState::waiting, 120)}),
                                       [](Context& c) { c.config.waitingGraceSeconds = 60; }});
  EXPECT_EQ(agents.saw,
            "1 of 2 sessions at work and heard of within 15 min, 1 left waiting for longer than 1 min");
  EXPECT_EQ(agents.changesAt, noon + Seconds{800});

  const Change limit = [](Context& c) { c.config.maximumHoldSeconds = 600; };
  const auto running = trace(PolicyRule::longestHold, {working, limit});
  EXPECT_EQ(running.saw, "a hold may last 10 min without a fresh event");
  EXPECT_EQ(running.outcome, PolicyRuleOutcome::passed);
  const auto ended = trace(PolicyRule::longestHold, {working, limit, expired});
  EXPECT_EQ(ended.saw, running.saw + ", reached at " + formatIso8601(noon));
  EXPECT_EQ(ended.wouldChange, "an agent's next event");

  const auto both = trace(PolicyRule::manualHold, {manual, command});
  EXPECT_EQ(both.saw, "manual hold is on, and a command runs under a hold: make");
  EXPECT_EQ(both.wouldChange, "switching manual hold off");
}

}  // namespace
}  // namespace vimbrel
