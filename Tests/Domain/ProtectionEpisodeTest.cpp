// SPDX-License-Identifier: Apache-2.0
#include "Domain/ProtectionEpisode.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "Domain/StrictCodec.h"

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
  nlohmann::json strict = toJson(full);
  nlohmann::json least = toJson(ProtectionEpisode{});
  // Details are forgiven, see below.
  for (const auto* detail : {"reasons", "workingSeconds", "counts"}) {
    strict.erase(detail);
    least.erase(detail);
  }
  for (const auto* later : {"wasLidCovered", "unheldSeconds"}) least.erase(later);
  requireStrictReading(strict, least,
                       [](const auto& read) { return protectionEpisodeFromJson(read).has_value(); });
  for (const auto* key : {"endedAt", "ending", "block"}) {
    auto broken = strict;
    broken[key] = "rain";
    const auto decoded = protectionEpisodeFromJson(broken);
    ASSERT_FALSE(decoded) << key;
    EXPECT_TRUE(decoded.error().text.contains("\"" + std::string(key) + "\" is not")) << decoded.error().text;
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
