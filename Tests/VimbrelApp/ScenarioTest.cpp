// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <map>
#include <nlohmann/json.hpp>

#include "CapturedLog.h"
#include "ScopedEnvironment.h"
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
  const ScopedEnvironment zone{{"TZ", "UTC"}};
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

/// The one JSON block of the document that has steps.
std::string documentedExample() {
  const auto text = readFile(EXAMPLES "/../simulated-machine.md").value_or("");
  const auto steps = text.find("\"steps\":");
  const std::string_view fence = "```";
  const auto begin = text.rfind("```json\n", steps) + std::string_view("```json\n").size();
  return steps == std::string::npos ? "" : text.substr(begin, text.find(fence, begin) - begin);
}

TEST(Scenario, ofTheDocumentIsLivedAsItReads) {
  const auto scenario = parseScenario(documentedExample());
  ASSERT_TRUE(scenario) << scenario.error();
  const auto text = simulated(*scenario).first;
  // A pause of the document, with the lid closed all along.
  EXPECT_TRUE(
      text.contains("08:20:00  > {\"lidClosed\":true}\n"
                    "08:20:00    lid closed: stays awake\n"
                    "08:40:00  > pauseUntil = 5m\n"
                    "08:40:00    Safety blocked: Protection paused\n"
                    "08:40:01    lid closed: the machine sleeps\n"
                    "08:45:00    Active (1 working agent) — Claude Code working; held: system\n"))
      << text;
}

TEST(Scenario, changesOnlyWhatAStepNamesWhileAnotherGoesOn) {
  const struct {
    std::string what;
    std::string steps;
    std::map<int, std::string> moments;  ///< by the minute
  } cases[] = {
      {"a lid within a ramp that is written after it",
       R"({"at":"20m","world":{"lidClosed":true}},{"at":"10m","battery":[80,60],"until":"30m"})",
       {{10, "80 %"}, {19, "71 %"}, {20, "70 % closed"}, {30, "60 % closed"}}},
      {"several within a ramp",
       R"({"at":"10m","battery":[80,60],"until":"30m"},{"at":"12m","world":{"lidClosed":true}},
          {"at":"15m","world":{"power":{"isOnAC":true}}},{"at":"18m","world":{"lidClosed":false}})",
       {{13, "77 % closed"}, {15, "75 % closed on AC"}, {18, "72 % on AC"}, {30, "60 % on AC"}}},
      {"at the ramp's first and last moment",
       R"({"at":"10m","battery":[80,60],"until":"30m"},{"at":"10m","world":{"power":{"isOnAC":true}}},
          {"at":"30m","world":{"lidClosed":true}})",
       {{10, "80 % on AC"}, {29, "61 % on AC"}, {30, "60 % closed on AC"}}},
      {"in the ramp's own step",
       R"({"at":"10m","world":{"lidClosed":true},"battery":[80,60],"until":"30m"})",
       {{10, "80 % closed"}, {20, "70 % closed"}}},
      {"a charge within a slow ramp holds until the next moment of it",
       R"({"at":"10m","battery":[80,79],"until":"30m"},{"at":"15m","world":{"power":{"batteryPercent":5}}})",
       {{14, "80 %"}, {15, "5 %"}, {16, "80 %"}, {30, "79 %"}}},
      {"two ramps, of which the later one wins while both go on",
       R"({"at":"10m","battery":[80,60],"until":"30m"},{"at":"20m","battery":[40,30],"until":"25m"})",
       {{19, "71 %"}, {20, "40 %"}, {25, "30 %"}, {26, "64 %"}}},
  };
  for (const auto& [what, steps, moments] : cases) {
    const auto scenario = parseScenario(
        R"({"length":"1h","world":{"power":{"batteryPercent":90,"isOnAC":false},"lidClosed":false},"steps":[)" +
        steps + "]}");
    ASSERT_TRUE(scenario) << what << ": " << scenario.error();
    for (const auto& [minute, expected] : moments) {
      auto world = scenario->world;
      for (const auto& step : scenario->steps) {
        const auto* change = std::get_if<ScenarioStep::World>(&step.action);
        if (change != nullptr && step.at <= std::chrono::minutes{minute}) world = change->world;
      }
      ASSERT_TRUE(world.power && world.power->batteryPercent) << what << ", minute " << minute;
      const auto found = std::to_string(*world.power->batteryPercent) + " %" +
                         (world.lidClosed == true ? " closed" : "") + (world.power->isOnAC ? " on AC" : "");
      EXPECT_EQ(found, expected) << what << ", minute " << minute;
    }
  }
}

TEST(Scenario, endsWhenItIsInterrupted) {
  const CapturedLog quiet;
  const TemporaryDirectory directory;
  const auto scenario =
      parseScenario(R"({"length":"2h","steps":[{"at":"1h","say":"half"},{"at":"1h1m","say":"more"}]})");
  ASSERT_TRUE(scenario) << scenario.error();
  Instant last{};
  const auto episodes = runScenario(
      *scenario, directory.path(), [&](const ScenarioEvent& event) { last = event.at; },
      [&] { return last >= scenario->start + std::chrono::hours{1}; });
  ASSERT_FALSE(episodes);
  EXPECT_EQ(episodes.error(), "it was interrupted");
  EXPECT_EQ(last, scenario->start + std::chrono::hours{1});
}

TEST(Scenario, saysWhatCannotBeMeant) {
  const auto with = [](const std::string& step) { return R"({"length":"1h","steps":[)" + step + "]}"; };
  for (const auto& [text, problem] : std::vector<std::pair<std::string, std::string>>{
           {"[", "scenario: not valid JSON"},
           {R"({"length":"1h"})", "scenario: \"steps\" is not a list"},
           {R"({"length":"1h","stpes":[]})", "scenario: \"stpes\" is unknown"},
           {R"({"length":"1h","steps":[],"settings":{"nope":1}})", "scenario: there is no setting \"nope\""},
           {R"({"steps":[]})", "scenario: \"length\" is missing"},
           {with(R"({"say":"x"})"), "step 1: \"at\" is missing"},
           {with(R"({"at":"1m","sya":"x"})"), "step 1: \"sya\" is unknown"},
           {with(R"({"at":"1m","agent":"clod","state":"idle"})"), "step 1: there is no such agent"},
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
           {with(R"({"at":"1h"},{"at":"61m"})"), "step 2: \"at\" is later than the scenario's \"length\""},
           {with(R"({"at":"50m","battery":[9,1],"until":"2h"})"),
            "step 1: \"until\" is later than the scenario's \"length\""},
           {with(R"({"at":"9m","settings":{"onlyOnAC":"maybe"}})"),
            "step 1: onlyOnAC cannot be \"maybe\": it takes on or off"},
           {with(R"({"at":"9m","settings":{"onlyOnAC":true}},{"at":"8m","vimbrel":"stop"})"),
            "step 1: settings cannot be changed while Vimbrel is not running"},
           {with(R"({"at":"1m","battery":[8,2],"until":"9m"},{"at":"5m","world":{"lidClosed":"no"}})"),
            "step 2: world: \"lidClosed\" is not true or false"},
           {R"({"length":"3d","steps":[{"at":"0","battery":[9,1],"every":"1s","until":"3d"}]})",
            "step 1: with it the scenario has more than 200000 steps"},
       }) {
    const auto parsed = parseScenario(text);
    ASSERT_FALSE(parsed) << text;
    EXPECT_EQ(parsed.error(), problem);
  }
}

}  // namespace
}  // namespace vimbrel
