// SPDX-License-Identifier: Apache-2.0
#include "Domain/ProtectionEpisode.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

namespace vimbrel {
namespace {

Instant at(double seconds) { return instantFromUnixSeconds(1'800'000'000 + seconds); }

const ProtectionEpisode full{.startedAt = at(0),
                             .endedAt = at(60),
                             .ending = EpisodeEnding::blocked,
                             .block = SafetyBlock::batteryBelowFloor,
                             .reasons = {"Codex working", "Manual hold requested"},
                             .workingSeconds = {{AgentType::codex, 55.5}},
                             .counts = {{at(0), 1}, {at(30), 2}},
                             .wasDeepHoldWanted = true,
                             .wasLidCovered = true,
                             .unheldSeconds = 1.5,
                             .batteryAtStart = 20,
                             .batteryAtEnd = 14};

TEST(ProtectionEpisode, readsBackWhatItWroteAndRefusesWhatItCannotCount) {
  EXPECT_EQ(protectionEpisodeFromJson(toJson(full)), full);
  EXPECT_EQ(protectionEpisodeFromJson(toJson(ProtectionEpisode{})), ProtectionEpisode{});
  for (const auto& [patch, error] : {
           std::pair(R"({"startedAt":null})", "\"startedAt\" is missing"),
           std::pair(R"({"endedAt":"later"})", "\"endedAt\" is not"),
           std::pair(R"({"ending":"gone"})", "\"ending\" is not known"),
           std::pair(R"({"block":"rain"})", "\"block\" is not known"),
           std::pair(R"({"wasDeepHoldWanted":1})", "\"wasDeepHoldWanted\" is not"),
       }) {
    nlohmann::json broken = toJson(full);
    broken.merge_patch(nlohmann::json::parse(patch));
    const auto decoded = protectionEpisodeFromJson(broken);
    ASSERT_FALSE(decoded) << patch;
    EXPECT_TRUE(decoded.error().text.contains(error)) << decoded.error().text;
  }
}

TEST(ProtectionEpisode, leavesOutDetailsThatALaterVersionWrites) {
  nlohmann::json later = toJson(full);
  later["reasons"].push_back(7);
  later["workingSeconds"]["oracle"] = 3;
  later["workingSeconds"]["claude"] = "long";
  later["counts"].push_back({{"at", "later"}});
  EXPECT_EQ(protectionEpisodeFromJson(later), full);
  for (const auto* detail : {"reasons", "workingSeconds", "counts"}) later[detail] = 7;
  const auto bare = protectionEpisodeFromJson(later);
  ASSERT_TRUE(bare);
  EXPECT_TRUE(bare->reasons.empty() && bare->workingSeconds.empty() && bare->counts.empty());
  EXPECT_EQ(bare->endedAt, full.endedAt);
}

}  // namespace
}  // namespace vimbrel
