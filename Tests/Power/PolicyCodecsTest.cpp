// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "Domain/PolicyConfigurationCodec.h"
#include "Domain/PowerSourceSnapshotCodec.h"
#include "Domain/StrictCodec.h"
#include "Domain/WakeDecisionCodec.h"

namespace vimbrel {
namespace {

using nlohmann::json;

TEST(PolicyCodecs, writeTheDecisionWithItsCaseAsTheOnlyKeyAndReadItBack) {
  const std::vector<std::pair<WakeDecision, const char*>> cases{
      {WakeDecision::hold("Claude Code working", 2, false),
       R"({"hold":{"reason":"Claude Code working","activeAgentCount":2,"requiresDeepHold":false}})"},
      {WakeDecision::release("No active agent sessions"),
       R"({"release":{"reason":"No active agent sessions"}})"},
      {WakeDecision::blocked(SafetyBlock::batteryBelowFloor),
       R"({"blocked":{"block":"Battery level below safety cutoff"}})"},
  };
  for (const auto& [decision, text] : cases) {
    EXPECT_EQ(toJson(decision).dump(), text);
    EXPECT_EQ(wakeDecisionFromJson(json::parse(text)), decision);
  }
}

TEST(PolicyCodecs, refuseEveryOtherDecision) {
  for (const auto* text :
       {R"({"hold":{"reason":"x","activeAgentCount":1,"requiresDeepHold":true},"release":{"reason":"y"}})",
        R"({"hold":{"reason":"x","activeAgentCount":1.5,"requiresDeepHold":true}})", "{}", "[]",
        R"({"blocked":{"block":"battery"}})", R"({"blocked":{}})", R"({"release":"y"})",
        R"({"sleep":{"reason":"y"}})"}) {
    EXPECT_FALSE(wakeDecisionFromJson(json::parse(text))) << text;
  }
  EXPECT_EQ(wakeDecisionFromJson(json::object()).error().text, "Invalid number of keys found, expected one.");
  EXPECT_EQ(wakeDecisionFromJson({{"sleep", nullptr}}).error().text,
            R"(decision: "sleep" is not a known case)");
}

TEST(PolicyCodecs, readTheConfigurationStrictly) {
  PolicyConfiguration configuration;
  configuration.batteryFloorPercent = 20;
  configuration.releaseDebounceSeconds = 12.5;
  configuration.waitingGraceSeconds = 300;
  configuration.maximumHoldSeconds = 7200;
  EXPECT_EQ(policyConfigurationFromJson(toJson(configuration)), configuration);
  const json least = toJson(PolicyConfiguration{});
  EXPECT_EQ(least.size(), 8U);
  requireStrictReading(toJson(configuration), least,
                       [](const json& read) { return policyConfigurationFromJson(read).has_value(); });
}

TEST(PolicyCodecs, letThePowerSourceLeaveOutWhatIsUnknown) {
  const auto desktop = PowerSourceSnapshot::desktopDefault();
  EXPECT_EQ(toJson(desktop).dump(), R"({"isCharging":false,"isOnAC":true,"isLowPowerMode":false})");
  EXPECT_EQ(powerSourceSnapshotFromJson(toJson(desktop)), desktop);
  const PowerSourceSnapshot laptop{47, true, false, true, 90};
  EXPECT_EQ(powerSourceSnapshotFromJson(toJson(laptop)), laptop);
  requireStrictReading(toJson(laptop), toJson(desktop),
                       [](const json& read) { return powerSourceSnapshotFromJson(read).has_value(); });
}

}  // namespace
}  // namespace vimbrel
