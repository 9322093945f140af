// SPDX-License-Identifier: Apache-2.0
#include "Catalogue.h"

#include <gtest/gtest.h>

#include <random>

#include "DateWords.h"
#include "MadeCatalogue.h"
#include "Say.h"

using namespace vimbrel;
using namespace std::string_literals;

namespace {

const CatalogueTexts texts{{"", "Content-Type: text/plain\nPlural-Forms: nplurals=2; plural=(n != 1);\n"},
                           {"Heat", "Wärme"},
                           {"Lid", "Deckel"},
                           {"empty", ""},
                           {"%1 fish\0%1 fishes"s, "%1 Fisch\0%1 Fische"s},
                           {"month\x04May", "Mai"},
                           {"May", "Darf"}};

TEST(Catalogue, findsTextsContextsAndPluralFormsInEitherByteOrder) {
  for (const bool isSwapped : {false, true}) {
    const auto bytes = catalogueBytes(texts, isSwapped);
    const auto catalogue = Catalogue::overBytes(bytes);
    ASSERT_TRUE(catalogue) << catalogue.error();
    EXPECT_EQ(catalogue->find("", "Heat"), "Wärme");
    EXPECT_EQ(catalogue->find("", "May"), "Darf");
    EXPECT_EQ(catalogue->find("month", "May"), "Mai");
    EXPECT_EQ(catalogue->find("", "empty"), std::nullopt);
    EXPECT_EQ(catalogue->find("", "nowhere"), std::nullopt);
    EXPECT_EQ(catalogue->find("month", "Heat"), std::nullopt);
    EXPECT_EQ(catalogue->find("", "%1 fish", 1), "%1 Fisch");
    for (const std::int64_t many : {0, 2, 21}) EXPECT_EQ(catalogue->find("", "%1 fish", many), "%1 Fische");
  }
}

TEST(Catalogue, survivesEveryCutAndManyDamages) {
  const auto whole = catalogueBytes(texts);
  const auto ask = [](const std::string& bytes) {
    const auto catalogue = Catalogue::overBytes(bytes);
    if (!catalogue) return false;
    (void)catalogue->find("", "Heat");
    (void)catalogue->find("", "%1 fish", 5);
    catalogue->forEach("month", [](const Catalogue::Entry&) {});
    return true;
  };
  for (std::size_t size = 0; size < whole.size(); ++size) ask(std::string(whole, 0, size));
  std::minstd_rand random(1);
  for (int round = 0; round < 20000; ++round) {
    auto bytes = whole;
    for (int change = 0; change < 3; ++change) {
      bytes[random() % bytes.size()] = static_cast<char>(random());
    }
    ask(bytes);
  }
  EXPECT_FALSE(ask("")) << "nothing is no catalogue";
  EXPECT_FALSE(ask(std::string(64, 'x')));
  EXPECT_TRUE(ask(whole));
}

TEST(PluralRule, formsOfLanguages) {
  const struct {
    std::string header;
    std::vector<std::pair<std::int64_t, std::size_t>> forms;
  } cases[] = {
      {"nplurals=2; plural=(n != 1);", {{1, 0}, {0, 1}, {-1, 0}}},
      {"nplurals=2; plural=(n > 1);", {{0, 0}, {2, 1}}},
      {"nplurals=1; plural=0;", {{7, 0}}},
      {"nplurals=3; plural=(n==1 ? 0 : n%10>=2 && n%10<=4 && (n%100<12 || n%100>14) ? 1 : 2);",
       {{1, 0}, {22, 1}, {12, 2}, {25, 2}}},
      {"nplurals=6; plural=n==0 ? 0 : n==1 ? 1 : n==2 ? 2 : n%100>=3 && n%100<=10 ? 3 : n%100>=11 ? 4 : 5;",
       {{0, 0}, {103, 3}, {111, 4}, {100, 5}}},
      {"nplurals=2; plural=!(n/2-1);", {{2, 1}}},
  };
  for (const auto& [header, forms] : cases) {
    for (const auto& [number, form] : forms) {
      EXPECT_EQ(PluralRule(header).formFor(number), form) << header << " for " << number;
    }
  }
}

TEST(PluralRule, whatCannotBeReadIsEnglishs) {
  for (const auto& header : {"", "nplurals=2; plural=;", "nplurals=2; plural=n==;", "nplurals=0; plural=0;",
                             "nplurals=2; plural=(n;", "nplurals=99; plural=0;", "nplurals=2; plural=n ? 1;",
                             "nplurals=2; plural=system(1);"}) {
    const PluralRule rule(header);
    EXPECT_EQ(rule.formFor(1), 0U) << header;
    EXPECT_EQ(rule.formFor(2), 1U) << header;
  }
  EXPECT_EQ(PluralRule("nplurals=2; plural=" + std::string(100000, '(') + "n").formFor(1), 0U);
  EXPECT_EQ(PluralRule("nplurals=2; plural=n*100;").formFor(3), 0U) << "an index beyond the forms";
  EXPECT_EQ(PluralRule("nplurals=2; plural=n/0;").formFor(3), 0U);
}

TEST(Say, speaksTheCatalogueWhereItKnowsTheTextAndEnglishElsewhere) {
  speak(madeCatalogue({{"%1 left of %2", "von %2 noch %1"},
                       {"%1 fish\0%1 fishes"s, "ein Fisch\0%1 Fische"s},
                       {"weekday\x04Mon", "Mo"},
                       {"date\x04%1 %2 %3", "%1, %2. %3"}}));
  EXPECT_EQ(say("%1 left of %2", {"%2", "9"}), "von 9 noch %2") << "a value is no mark";
  EXPECT_EQ(say("unknown %1", {"x"}), "unknown x");
  EXPECT_EQ(say(""), "") << "the header is no text";
  EXPECT_EQ(sayCount(1, "%1 fish", "%1 fishes"), "ein Fisch");
  EXPECT_EQ(sayCount(5, "%1 cat", "%1 cats"), "5 cats");
  EXPECT_EQ(shortDate(std::chrono::year(2026) / 3 / 2), "Mo, 2. Mar");
  {
    const InEnglish english;
    EXPECT_EQ(sayCount(1, "%1 fish", "%1 fishes"), "1 fish");
  }
  EXPECT_EQ(sayCount(5, "%1 fish", "%1 fishes"), "5 Fische");
  speak(nullptr);
  EXPECT_EQ(say("%1 left of %2", {"1", "9"}), "1 left of 9");
}

}  // namespace
