// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "Domain/PolicyConfigurationCodec.h"
#include "Domain/PowerSourceSnapshotCodec.h"
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
  const std::vector<std::pair<const char*, const char*>> cases{
      {R"({"hold":{"reason":"x","activeAgentCount":1,"requiresDeepHold":true},"release":{"reason":"y"}})",
       "Invalid number of keys found, expected one."},
      {"{}", "Invalid number of keys found, expected one."},
      {R"({"blocked":{"block":"battery"}})", R"(blocked: "block" is not a known message)"},
      {R"({"blocked":{}})", R"(blocked: "block" is missing)"},
      {R"({"hold":{"reason":"x","activeAgentCount":1.5,"requiresDeepHold":true}})",
       R"(hold: "activeAgentCount" is not a whole number)"},
      {R"({"release":"y"})", "release: not a JSON object"},
      {R"({"sleep":{"reason":"y"}})", R"(decision: "sleep" is not a known case)"},
      {"[]", "decision: not a JSON object"},
  };
  for (const auto& [text, error] : cases) {
    const auto decision = wakeDecisionFromJson(json::parse(text));
    ASSERT_FALSE(decision) << text;
    EXPECT_EQ(decision.error().text, error);
  }
}

TEST(PolicyCodecs, requireEveryKeyOfTheConfiguration) {
  PolicyConfiguration configuration;
  configuration.batteryFloorPercent = 20;
  configuration.releaseDebounceSeconds = 12.5;
  const json whole = toJson(configuration);
  ASSERT_EQ(whole.size(), 8U);
  EXPECT_EQ(policyConfigurationFromJson(whole), configuration);
  for (const auto& [key, value] : whole.items()) {
    auto missing = whole;
    missing.erase(key);
    EXPECT_FALSE(policyConfigurationFromJson(missing)) << key;
    auto mistyped = whole;
    mistyped[key] = "20";
    EXPECT_FALSE(policyConfigurationFromJson(mistyped)) << key;
  }
  configuration.waitingGraceSeconds = 300;
  configuration.maximumHoldSeconds = 7200;
  EXPECT_EQ(policyConfigurationFromJson(toJson(configuration)), configuration);
  auto fraction = whole;
  fraction["batteryFloorPercent"] = 20.5;
  EXPECT_FALSE(policyConfigurationFromJson(fraction));
}

TEST(PolicyCodecs, letThePowerSourceLeaveOutWhatIsUnknown) {
  const auto desktop = PowerSourceSnapshot::desktopDefault();
  EXPECT_EQ(toJson(desktop).dump(), R"({"isCharging":false,"isOnAC":true,"isLowPowerMode":false})");
  EXPECT_EQ(powerSourceSnapshotFromJson(toJson(desktop)), desktop);
  const PowerSourceSnapshot laptop{47, true, false, true, 90};
  EXPECT_EQ(powerSourceSnapshotFromJson(toJson(laptop)), laptop);
  EXPECT_TRUE(powerSourceSnapshotFromJson(
      json::parse(R"({"batteryPercent":null,"isCharging":false,"isOnAC":true,"isLowPowerMode":false})")));
  EXPECT_FALSE(powerSourceSnapshotFromJson(json::parse(R"({"isCharging":false,"isLowPowerMode":false})")));
}

}  // namespace
}  // namespace vimbrel
