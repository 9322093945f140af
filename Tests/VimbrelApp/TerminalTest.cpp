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
  const struct {
    std::string text;
    std::size_t width;
    std::string cutToFour;
  } cases[] = {{"", 0, ""},          {"four", 4, "four"},         {"fiver", 5, "fiv…"},
               {"naïve", 5, "naï…"}, {"e\u0301a", 2, "e\u0301a"}, {"日本", 4, "日本"},
               {"日本語", 6, "日…"}, {"a🙂bc", 5, "a🙂…"}};
  for (const auto& each : cases) {
    EXPECT_EQ(displayWidth(each.text), each.width) << each.text;
    EXPECT_EQ(clipped(each.text, 4), each.cutToFour);
    EXPECT_EQ(displayWidth(padded(each.text, 4)), 4U) << each.text;
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
  EXPECT_EQ(wrapped("incomprehensible", 6), (Lines{"incomp", "rehens", "ible"}));
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
          {"decision", {{"hold", {{"reason", "x"}}}}},
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
  const auto held = [](bool holding, bool system, bool simulated, json details) {
    return heldSentence({{"isHolding", holding},
                         {"assertions",
                          {{"system", system},
                           {"display", false},
                           {"simulated", simulated},
                           {"mechanisms", {"logind"}},
                           {"mechanismDetails", std::move(details)}}}});
  };
  const json refused{{{"name", "logind"}, {"state", "refused"}, {"detail", "not allowed"}}};
  const json missing{{{"name", "logind"}, {"state", "missing"}, {"detail", "no bus"}},
                     {{"name", "simulated"}, {"state", "granted"}}};
  EXPECT_EQ(held(false, false, false, {}), "nothing");
  EXPECT_EQ(held(true, true, false, {}), "system sleep, by logind");
  EXPECT_EQ(held(true, false, false, refused),
            "NOTHING: the machine can fall asleep. logind refused (not allowed)");
  EXPECT_EQ(held(true, true, true, missing),
            "system sleep of a simulated machine, nothing of this one: logind missing (no bus)");
}

TEST(ClosestMatch, findsWhatWasMeantAndNothingElse) {
  constexpr std::string_view commands[] = {"status", "settings", "sessions", "pause", "why"};
  const auto meant = [&](std::string_view text) { return closestMatch(text, commands).value_or("-"); };
  EXPECT_EQ(meant("staus"), "status");
  EXPECT_EQ(meant("STATUS"), "status");
  EXPECT_EQ(meant("puase"), "pause");
  EXPECT_EQ(meant("wyh"), "why");
  EXPECT_EQ(meant("setings"), "settings");
  EXPECT_EQ(meant("xyzzy"), "-");
  EXPECT_EQ(meant(""), "-");
  EXPECT_EQ(meant(std::string(100000, 'a')), "-");
}

}  // namespace
}  // namespace vimbrel
