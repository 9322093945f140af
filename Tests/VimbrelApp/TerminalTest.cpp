// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "Support/ClosestMatch.h"
#include "Terminal/DisplayText.h"
#include "Terminal/StatusView.h"
#include "Terminal/Table.h"

namespace vimbrel {
namespace {

using nlohmann::json;

const Palette noColours(false);
const Instant noon = instantFromUnixSeconds(1769860800);

TEST(DisplayText, countsColumnsAndCutsAtCharacters) {
  const std::tuple<const char*, std::size_t, const char*> cases[] = {
      {"", 0, ""},         {"four", 4, "four"},  {"naïve", 5, "naï…"}, {"e\u0301a", 2, "e\u0301a"},
      {"日本", 4, "日本"}, {"日本語", 6, "日…"}, {"a🙂bc", 5, "a🙂…"}};
  for (const auto& [text, width, cutToFour] : cases) {
    EXPECT_EQ(displayWidth(text), width) << text;
    EXPECT_EQ(clipped(text, 4), cutToFour);
    EXPECT_EQ(displayWidth(padded(text, 4)), 4U) << text;
  }
}

TEST(DisplayText, letsNothingSteerTheTerminal) {
  EXPECT_EQ(displayable("a\x1b[2Jb\r\n\tc\x7f"), "a?[2Jb???c?");
  EXPECT_EQ(displayable("c1 \u009b31m, order \u202e, bytes \xff\xc3"), "c1 ?31m, order ?, bytes ??");
  EXPECT_EQ(displayable("Ünïcödé 日本"), "Ünïcödé 日本");
}

TEST(DisplayText, wrapsAtBlanksAndBreaksWhatIsTooLong) {
  using Lines = std::vector<std::string>;
  EXPECT_EQ(wrapped("one two three", 7), (Lines{"one two", "three"}));
  EXPECT_EQ(wrapped("a incomprehensible", 6), (Lines{"a", "incomp", "rehens", "ible"}));
  EXPECT_EQ(wrapped("", 6), (Lines{""}));
  EXPECT_EQ(wrapped("as it is", 0), (Lines{"as it is"}));
}

TEST(Table, takesFromTheWidestColumnFirst) {
  Table table({"A", "LONG"});
  table.addRow({{"short"}, {"a rather long text"}});
  EXPECT_EQ(table.lines(0, noColours),
            (std::vector<std::string>{"A      LONG", "short  a rather long text"}));
  EXPECT_EQ(table.lines(14, noColours), (std::vector<std::string>{"A      LONG", "short  a rath…"}));
}

json busyState() {
  json sessions = json::array();
  for (int i = 0; i < 40; ++i) {
    sessions.push_back({{"agentType", i % 2 == 0 ? "claude" : "somebody's"},
                        {"state", "working"},
                        {"lastEventAt", "2026-01-31T11:58:00Z"},
                        {"pid", 4711},
                        {"cwd", "/home/somebody/\x1b[31m日本語/a/rather/long/directory"}});
  }
  return {{"statusDescription", "Active (40 working agents) — Claude Code, and others \x1b]0;title\x07"},
          {"isHolding", true},
          {"protectionStartedAt", "2026-01-31T11:00:00Z"},
          {"power", {{"isOnAC", false}, {"batteryPercent", 80}, {"timeRemainingMinutes", 140}}},
          {"thermalState", "serious"},
          {"assertions",
           {{"system", true}, {"display", false}, {"simulated", false}, {"mechanisms", {"logind"}}}},
          {"warnings", {"something that is worth a long sentence which no narrow terminal can show at once"}},
          {"sessions", sessions}};
}

TEST(StatusView, fitsEveryTerminalAndLetsNothingThrough) {
  for (const std::size_t columns : {20, 40, 80, 200}) {
    for (const std::size_t rows : {1, 2, 10, 24, 100}) {
      const auto lines = statusScreen(busyState(), {columns, rows}, noColours, noon, "q quit", "a notice");
      EXPECT_LE(lines.size(), std::max<std::size_t>(rows, 2));
      for (const auto& line : lines) {
        EXPECT_LE(displayWidth(line), columns) << line;
        EXPECT_FALSE(line.contains('\x1b')) << line;
      }
      EXPECT_EQ(lines.back(), "q quit");
    }
  }
}

TEST(StatusView, showsWhateverAnotherVersionSends) {
  for (const char* text :
       {"{}", R"({"sessions":7,"assertions":[],"power":null,"warnings":{"a":1}})",
        R"({"sessions":[1,null,{}],"statusDescription":5,"isHolding":"yes"})",
        R"({"assertions":{"mechanisms":[1],"mechanismDetails":[1,{}]},"isHolding":true})"}) {
    EXPECT_FALSE(statusLines(json::parse(text), 40, noColours, noon).empty()) << text;
  }
}

TEST(StatusView, saysPlainlyWhatIsNotHeld) {
  const auto held = [](bool system, bool simulated, const json& details) {
    return heldSentence({{"isHolding", true},
                         {"assertions",
                          {{"system", system},
                           {"simulated", simulated},
                           {"mechanisms", {"logind"}},
                           {"mechanismDetails", details}}}});
  };
  EXPECT_EQ(held(true, false, {}), "system sleep, by logind");
  EXPECT_EQ(held(false, false, {{{"name", "logind"}, {"state", "refused"}, {"detail", "not allowed"}}}),
            "NOTHING: the machine can fall asleep. logind refused (not allowed)");
  EXPECT_EQ(held(true, true,
                 {{{"name", "logind"}, {"state", "missing"}, {"detail", "no bus"}},
                  {{"name", "simulated"}, {"state", "granted"}}}),
            "system sleep of a simulated machine, nothing of this one: logind missing (no bus)");
}

TEST(ClosestMatch, findsWhatWasMeantAndNothingElse) {
  constexpr std::string_view commands[] = {"status", "settings", "sessions", "pause", "why"};
  for (const auto& [text, meant] :
       std::vector<std::pair<std::string, std::string>>{{"staus", "status"},
                                                        {"STATUS", "status"},
                                                        {"wyh", "why"},
                                                        {"xyzzy", "-"},
                                                        {"", "-"},
                                                        {std::string(100000, 'a'), "-"}}) {
    EXPECT_EQ(closestMatch(text, commands).value_or("-"), meant);
  }
}

}  // namespace
}  // namespace vimbrel
