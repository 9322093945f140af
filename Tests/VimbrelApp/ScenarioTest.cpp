// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "CapturedLog.h"
#include "Simulate/ScenarioRun.h"
#include "Support/AtomicFile.h"
#include "TemporaryDirectory.h"
#include "Terminal/HistoryView.h"

namespace vimbrel {
namespace {

using nlohmann::json;

/// What `vimbrel simulate` prints, and the episodes.
std::pair<std::string, std::vector<ProtectionEpisode>> simulated(const Scenario& scenario) {
  const CapturedLog quiet;
  const TemporaryDirectory directory;
  ::setenv("TZ", "UTC", 1);
  std::string text;
  const auto episodes = runScenario(scenario, directory.path(),
                                    [&](const ScenarioEvent& event) { text += lineOf(event) + "\n"; });
  EXPECT_TRUE(episodes) << episodes.error();
  json list = json::array();
  for (const auto& episode : *episodes) list.push_back(json(toJson(episode)));
  text += "\n";
  for (const auto& line :
       historyLines({{"episodes", std::move(list)}}, 0, Palette(false), scenario.start + scenario.length)) {
    text += line + "\n";
  }
  return {text, *episodes};
}

TEST(Day, isLivedAsItIsWrittenDown) {
  const auto file = readFile(EXAMPLES "/day.json");
  const auto expected = readFile(EXAMPLES "/day.txt");
  ASSERT_TRUE(file && expected);
  const auto scenario = parseScenario(*file);
  ASSERT_TRUE(scenario) << scenario.error();
  const auto [text, episodes] = simulated(*scenario);
  EXPECT_EQ(text, *expected)
      << "if this is meant: vimbrel simulate docs/examples/day.json > docs/examples/day.txt";
  // What no rewriting of the expected text may hide.
  ASSERT_EQ(episodes.size(), 9U);
  EXPECT_EQ(episodes[1].block, SafetyBlock::batteryBelowFloor);
  EXPECT_EQ(episodes[1].batteryAtEnd, 15);
  EXPECT_EQ(episodes[3].block, SafetyBlock::thermalCritical);
  EXPECT_EQ(episodes[5].block, SafetyBlock::paused);
  EXPECT_EQ(episodes[6].ending, EpisodeEnding::interrupted);
  EXPECT_EQ(simulated(*scenario).first, text) << "the same scenario gives the same day";
}

TEST(Scenario, saysWhatCannotBeMeant) {
  const auto with = [](const std::string& step) { return R"({"length":"1h","steps":[)" + step + "]}"; };
  for (const auto& [text, problem] : std::vector<std::pair<std::string, std::string>>{
           {"[", "scenario: not valid JSON"},
           {"[]", "scenario: not a JSON object"},
           {R"({"length":"1h"})", "scenario: \"steps\" is not a list"},
           {R"({"steps":[]})", "scenario: \"length\" is missing"},
           {with(R"({"say":"x"})"), "step 1: \"at\" is missing"},
           {with(R"({"at":"1m","sya":"x"})"), "step 1: \"sya\" is unknown"},
           {with(R"({"at":"1m","agent":"clod","state":"idle"})"), "step 1: there is no such agent"},
           {with(R"({"at":"1m","agent":"claude","state":"asleep"})"), "step 1: there is no such state"},
           {with(R"({"at":"9m","world":{"thermalState":"hot"}})"),
            "step 1: world: \"thermalState\" is none of nominal, fair, serious and critical"},
           {with(R"({"at":"9m","world":{"lid":true}})"), "step 1: the world has no \"lid\""},
           {with(R"({"at":"9m","world":{"power":5},"battery":[80,20]})"), "step 1: power: not a JSON object"},
           {with(R"({"at":"1m"},{"at":"2m","vimbrel":"nap"})"),
            "step 2: \"vimbrel\" is none of start, stop and crash"},
           {with(R"({"at":"2m","until":"1m"})"), "step 1: \"until\" is before \"at\""},
           {with(R"({"at":"2m","every":"1m"})"), "step 1: \"every\" needs \"until\""},
           {with(R"({"at":"2m","battery":[1]})"), "step 1: \"battery\" takes two charges, such as [80, 20]"},
           {with(R"({"at":"90d"})"), "step 1: \"90d\" is longer than two weeks"},
       }) {
    const auto parsed = parseScenario(text);
    ASSERT_FALSE(parsed) << text;
    EXPECT_EQ(parsed.error(), problem);
  }
  const TemporaryDirectory directory;
  const CapturedLog quiet;
  for (const auto& [settings, problem] : std::vector<std::pair<std::string, std::string>>{
           {R"({"nope":1})", "there is no setting \"nope\""},
           {R"({"onlyOnAC":"maybe"})", "onlyOnAC cannot be \"maybe\": it takes on or off"}}) {
    const auto scenario = parseScenario(R"({"length":"1h","steps":[],"settings":)" + settings + "}");
    ASSERT_TRUE(scenario);
    EXPECT_EQ(runScenario(*scenario, directory.path(), [](const auto&) {}).error(), problem);
  }
}

}  // namespace
}  // namespace vimbrel
