// SPDX-License-Identifier: Apache-2.0
#include "Retelling.h"

#include <gtest/gtest.h>

#include <regex>

#include "MadeCatalogue.h"
#include "Support/Sentence.h"

using namespace vimbrel;
using namespace std::string_literals;

namespace {

std::string key(const std::string& english) { return std::string(Retelling::context) + '\x04' + english; }

TEST(Retelling, takesSentencesApartAndPutsThemTogetherAgain) {
  const auto catalogue =
      madeCatalogue({{key("Idle"), "Untätig"},
                     {key("%1 on battery"), "%1 im Akkubetrieb"},
                     {key("%1, floor %2 %"), "%1, Untergrenze %2 %"},
                     {key("a charge below %1 % on battery"), "ein Ladestand unter %1 % im Akkubetrieb"},
                     {key("charge unknown"), "Ladestand unbekannt"},
                     {key("%2 of %1 session\0%2 of %1 sessions"s), "%2 von %1 Sitzung\0%2 von %1 Sitzungen"s},
                     {key("Active (%1 agent) — %2\0Active (%1 agents) — %2"s),
                      "Aktiv (%1 Agent) – %2\0Aktiv (%1 Agenten) – %2"s},
                     {key("%1 working"), "%1 bei der Arbeit"},
                     {key("moved from %1 to %2"), "von %1 nach %2"},
                     {key("%1 context left"), "%1 Kontext übrig"},
                     {"left", "links"}});
  const Retelling retelling(*catalogue);
  const struct {
    const char* english;
    const char* german;
  } cases[] = {
      {"Idle", "Untätig"},
      {"", ""},
      {"left", "left"},  // A surface's own word, not a sentence.
      {"14 % on battery, floor 15 %", "14 % im Akkubetrieb, Untergrenze 15 %"},
      {"charge unknown on battery, floor 15 %", "Ladestand unbekannt im Akkubetrieb, Untergrenze 15 %"},
      // The pattern that says more itself wins.
      {"a charge below 15 % on battery", "ein Ladestand unter 15 % im Akkubetrieb"},
      {"3 of 8 sessions", "3 von 8 Sitzungen"},
      {"three of many sessions", "three of many sessions"},  // No number, no plural.
      {"Active (1 agent) — Idle", "Aktiv (1 Agent) – Untätig"},
      {"Active (2 agents) — Claude Code, Codex CLI working",
       "Aktiv (2 Agenten) – Claude Code, Codex CLI bei der Arbeit"},
      {"moved from /a to to /b", "von /a nach to /b"},
      {"moved from %2 to %1", "von %2 nach %1"},
      {"moved from  to /b", "moved from  to /b"},  // A value is never empty.
      {"12k context left · Idle · $1.23", "12k Kontext übrig · Untätig · $1.23"},
  };
  for (const auto& each : cases) EXPECT_EQ(retelling.retell(each.english), each.german) << each.english;
}

TEST(Retelling, endsWhateverItIsGiven) {
  const auto catalogue = madeCatalogue({{key("%1a%2"), "%2a%1"}, {key("%1 · x"), "y"}});
  const Retelling retelling(*catalogue);
  std::string text;
  for (int i = 0; i < 2000; ++i) text += "a · ";
  EXPECT_FALSE(retelling.retell(text).empty());
  EXPECT_FALSE(retelling.retell(std::string(20000, 'a')).empty());
}

#ifdef GERMAN_CATALOGUE
/// A sentence whose pattern another one takes for itself would be told wrongly.
TEST(Retelling, everySentenceOfTheGermanCatalogueIsKnownAgain) {
  const auto catalogue = Catalogue::open(GERMAN_CATALOGUE);
  ASSERT_TRUE(catalogue) << catalogue.error();
  const Retelling retelling(*catalogue);
  const std::string_view values[]{"3", "/a/b", "«c»", "«d»", "«e»", "", "", "", ""};
  int patterns = 0;
  catalogue->forEach(Retelling::context, [&](const Catalogue::Entry& entry) {
    const bool isCounted = !entry.englishPlural.empty();
    const auto english = isCounted ? entry.englishPlural : entry.english;
    const auto german = isCounted ? catalogue->find(Retelling::context, entry.english, 3)
                                  : catalogue->find(Retelling::context, english);
    ASSERT_TRUE(german) << english;
    EXPECT_EQ(retelling.retell(filledIn(english, values, 9)), filledIn(*german, values, 9)) << english;
    if (english.contains("%1")) ++patterns;
  });
  EXPECT_GT(patterns, 80);
}
#endif

}  // namespace
