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

constexpr auto most = std::numeric_limits<std::int64_t>::max();
constexpr auto least = std::numeric_limits<std::int64_t>::min();
const AgentSession working = session(AgentType::claude, AgentState::working);

/// An ordinary machine at noon: on AC power, cool, default settings, deep hold not wanted.
struct World {
  PolicyEvaluationContext context;

  World() {
    context.now = noon;
    context.config.deepLidProtectionEnabled = false;
  }
  World& with(const std::function<void(PolicyEvaluationContext&)>& change) {
    change(context);
    return *this;
  }
  World& sessions(const std::vector<AgentSession>& list) {
    context.sessions = SessionSnapshot::of(list);
    return *this;
  }
  World& onBattery(std::int64_t percent, bool isCharging = false) {
    context.powerSource = {percent, isCharging, false, false, std::nullopt};
    return *this;
  }
  World& floor(std::int64_t percent, bool wasCut = false) {
    context.config.batteryFloorPercent = percent;
    context.isCurrentlyBatteryBlocked = wasCut;
    return *this;
  }
  World& stopped(double secondsAgo, double debounce = 30) {
    context.lastActiveAgentStoppedAt = noon - Seconds{secondsAgo};
    context.config.releaseDebounceSeconds = debounce;
    return *this;
  }
};

WakeDecision hold(std::string reason, std::int64_t count) {
  return WakeDecision::hold(std::move(reason), count, false);
}
WakeDecision blocked(SafetyBlock block) { return WakeDecision::blocked(block); }
const WakeDecision release = WakeDecision::release("No active agent sessions");
const WakeDecision claudeWorks = hold("Claude Code working", 1);

TEST(WakePolicy, decidesByTheFirstRuleThatApplies) {
  constexpr double infinity = std::numeric_limits<double>::infinity();
  using Context = PolicyEvaluationContext;
  const auto master = [](Context& c) { c.config.masterEnabled = false; };
  const auto manual = [](Context& c) { c.config.manualHoldEnabled = true; };
  const auto critical = [](Context& c) { c.thermalState = SystemThermalState::critical; };
  const auto acOnly = [](Context& c) { c.config.onlyOnAC = true; };
  const auto pausedFor = [](double seconds) {
    return [seconds](Context& c) { c.pauseUntil = noon + Seconds{seconds}; };
  };
  const std::vector<std::tuple<const char*, World, WakeDecision>> cases{
      {"nothing happens", World(), release},
      {"the master switch wins over heat", World().with(master).with(critical),
       blocked(SafetyBlock::masterDisabled)},
      {"a pause wins over heat", World().with(pausedFor(1)).with(critical), blocked(SafetyBlock::paused)},
      {"a pause that ends now is over", World().with(pausedFor(0)).sessions({working}), claudeWorks},
      {"critical heat wins over AC-only", World().with(critical).with(acOnly).onBattery(90),
       blocked(SafetyBlock::thermalCritical)},
      {"serious heat does not block",
       World().with([](Context& c) { c.thermalState = SystemThermalState::serious; }).sessions({working}),
       claudeWorks},
      {"AC-only wins over a low battery and a manual hold", World().with(acOnly).with(manual).onBattery(1),
       blocked(SafetyBlock::acDisconnected)},
      {"AC-only is content with AC power", World().with(acOnly).sessions({working}), claudeWorks},
      {"at the floor", World().onBattery(20).floor(20).sessions({working}),
       blocked(SafetyBlock::batteryBelowFloor)},
      {"above the floor", World().onBattery(21).floor(20).sessions({working}), claudeWorks},
      {"cut off, below floor + hysteresis", World().onBattery(22).floor(20, true).sessions({working}),
       blocked(SafetyBlock::batteryBelowFloor)},
      {"cut off, at floor + hysteresis", World().onBattery(23).floor(20, true).sessions({working}),
       claudeWorks},
      {"low but charging", World().onBattery(5, true).sessions({working}), claudeWorks},
      {"low but on AC",
       World().onBattery(5).with([](Context& c) { c.powerSource.isOnAC = true; }).sessions({working}),
       claudeWorks},
      {"charge unknown",
       World()
           .onBattery(5)
           .with([](Context& c) { c.powerSource.batteryPercent.reset(); })
           .sessions({working}),
       claudeWorks},
      {"a low battery wins over a manual hold", World().onBattery(5).with(manual),
       blocked(SafetyBlock::batteryBelowFloor)},
      {"a manual hold needs no agent", World().with(manual), hold("Manual hold requested", 0)},
      {"a manual hold counts the agents", World().with(manual).sessions({working}),
       hold("Manual hold requested", 1)},
      {"a hold that lasted too long ends",
       World().sessions({working}).with([](Context& c) { c.holdExpiredAt = noon; }),
       WakeDecision::release("Longest hold reached")},
      {"but not the hold of a command", World().with([](Context& c) {
         c.holdExpiredAt = noon;
         c.commandHold = "make";
       }),
       hold("Running make", 0)},
      {"a floor below every charge", World().onBattery(0).floor(most, true),
       blocked(SafetyBlock::batteryBelowFloor)},
      {"a floor that no sum can hold", World().onBattery(0).floor(least, true).with([](Context& c) {
         c.config.batteryHysteresisPercent = -1;
       }),
       release},
      {"names are sorted and not repeated",
       World().sessions({session(AgentType::codex, AgentState::waiting), working,
                         session(AgentType::claude, AgentState::working)}),
       hold("Claude Code, Codex CLI working", 3)},
      {"only busy states count",
       World().sessions(
           {session(AgentType::claude, AgentState::idle), session(AgentType::claude, AgentState::completed),
            session(AgentType::claude, AgentState::error), session(AgentType::claude, AgentState::stale),
            session(AgentType::claude, AgentState::unknown)}),
       release},
      {"silent for exactly the limit",
       World().sessions({session(AgentType::claude, AgentState::working, 900)}), claudeWorks},
      {"silent for longer", World().sessions({session(AgentType::claude, AgentState::working, 901)}),
       release},
      {"the delay is rounded up", World().stopped(10.5), hold("Release debounce (20s)", 0)},
      {"the delay's last second", World().stopped(29), hold("Release debounce (1s)", 0)},
      {"the delay is over", World().stopped(30), release},
      {"a stop in the future", World().stopped(-5), release},
      {"an endless delay", World().stopped(1, infinity), hold("Release debounce (9223372036854775807s)", 0)},
      {"a huge delay", World().stopped(1, 1e300), hold("Release debounce (9223372036854775807s)", 0)},
      {"a delay that is no number", World().stopped(1, std::numeric_limits<double>::quiet_NaN()), release},
      {"a stop at no time", World().stopped(std::numeric_limits<double>::quiet_NaN()), release},
  };
  for (const auto& [name, world, expected] : cases) {
    EXPECT_EQ(WakePolicyEngine().evaluate(world.context), expected)
        << name << ": " << WakePolicyEngine().evaluate(world.context).statusDescription();
  }
}

TEST(WakePolicy, holdsThroughTheDebounceThenLetsGo) {
  World world;
  world.stopped(0).context.config.deepLidProtectionEnabled = true;
  for (int second = 0; second < 30; ++second) {
    world.context.now = noon + Seconds{static_cast<double>(second)};
    const auto text = "Release debounce (" + std::to_string(30 - second) + "s)";
    ASSERT_EQ(WakePolicyEngine().evaluate(world.context), WakeDecision::hold(text, 0, true));
  }
  world.context.now = noon + Seconds{30};
  EXPECT_EQ(WakePolicyEngine().evaluate(world.context), release);
}

/// Anything a context can hold, with edges more often than chance gives them.
PolicyEvaluationContext randomContext(std::mt19937& random) {
  const auto chance = [&](int percent) { return static_cast<int>(random() % 100) < percent; };
  const auto pick = [&](std::initializer_list<double> values) {
    return values.begin()[random() % values.size()];
  };
  constexpr double infinity = std::numeric_limits<double>::infinity();
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
  const auto trace = [](const World& world, PolicyRule rule) {
    return WakePolicyEngine().explain(world.context).rules.at(static_cast<std::size_t>(rule));
  };
  const auto battery = trace(World().onBattery(16).floor(15, true), PolicyRule::batteryFloor);
  EXPECT_EQ(battery.saw, "16 % on battery, floor 15 %, cut off until 18 %");
  EXPECT_EQ(battery.wouldChange, "AC power, charging, or a charge of 18 %");
  EXPECT_EQ(battery.changesAt, std::nullopt);

  const auto debounce = trace(World().stopped(10.5), PolicyRule::releaseDebounce);
  EXPECT_EQ(debounce.saw, "the last agent stopped 10 s ago, release delay 30 s");
  EXPECT_EQ(debounce.changesAt, noon + Seconds{19.5});

  const auto agents = trace(World().sessions({session(AgentType::aider, AgentState::working, 100)}),
                            PolicyRule::agentsAtWork);
  EXPECT_EQ(agents.saw, "1 of 1 session at work and heard of within 15 min");
  EXPECT_EQ(agents.changesAt, noon + Seconds{800});

  const auto left = trace(World()
                              .sessions({working, session(AgentType::codex, AgentState::waiting, 120)})
                              .with([](auto& context) { context.config.waitingGraceSeconds = 60; }),
                          PolicyRule::agentsAtWork);
  EXPECT_EQ(left.saw,
            "1 of 2 sessions at work and heard of within 15 min, 1 left waiting for longer than 1 min");

  const auto longest = [&](std::optional<Instant> expiredAt) {
    return trace(World().sessions({working}).with([&](auto& context) {
      context.config.maximumHoldSeconds = 600;
      context.holdExpiredAt = expiredAt;
    }),
                 PolicyRule::longestHold);
  };
  EXPECT_EQ(longest({}).saw, "a hold may last 10 min without a fresh event");
  EXPECT_EQ(longest({}).outcome, PolicyRuleOutcome::passed);
  EXPECT_EQ(longest(noon).saw,
            "a hold may last 10 min without a fresh event, reached at " + formatIso8601(noon));
  EXPECT_EQ(longest(noon).says, WakeDecision::release("Longest hold reached"));
  EXPECT_EQ(longest(noon).wouldChange, "an agent's next event");

  const auto both = trace(World().with([](auto& context) {
    context.config.manualHoldEnabled = true;
    context.commandHold = "make";
  }),
                          PolicyRule::manualHold);
  EXPECT_EQ(both.saw, "manual hold is on, and a command runs under a hold: make");
  EXPECT_EQ(both.wouldChange, "switching manual hold off");
}

}  // namespace
}  // namespace vimbrel
