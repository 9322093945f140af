// SPDX-License-Identifier: Apache-2.0
#include "Run/ChangeLines.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

namespace vimbrel {
namespace {

using nlohmann::json;

json summary(std::size_t sessionCount, const std::string& reason = "r") {
  json sessions = json::array();
  for (std::size_t i = 0; i < std::min(sessionCount, ChangeLines::maximumAgentsNamed); ++i) {
    sessions.push_back({{"agentType", "codex"}, {"state", "working"}});
  }
  return {{"statusDescription", reason},
          {"isHolding", true},
          {"sessions", std::move(sessions)},
          {"sessionCount", sessionCount},
          {"assertions", {{"system", true}, {"display", false}, {"mechanisms", {"logind"}}}}};
}

TEST(ChangeLines, nameAFewAgentsAndLeaveOutWhatOnlyCountsDown) {
  ChangeLines lines;
  const auto now = instantFromReferenceSeconds(0);
  EXPECT_EQ(lines.next(summary(0), now),
            "2001-01-01T00:00:00Z r; agents: none; held: system sleep, by logind");
  EXPECT_EQ(
      lines.next(summary(1, "Release debounce (9s left)"), now),
      "2001-01-01T00:00:00Z Release debounce (9s left); agents: Codex CLI working; held: system sleep, by "
      "logind");
  EXPECT_EQ(lines.next(summary(1, "Release debounce (8s left)"), now), std::nullopt);
  const auto crowd = lines.next(summary(10'000), now).value();
  EXPECT_TRUE(crowd.contains("Codex CLI working and 9980 more; held")) << crowd;
  EXPECT_LT(crowd.size(), 1000U);
}

}  // namespace
}  // namespace vimbrel
