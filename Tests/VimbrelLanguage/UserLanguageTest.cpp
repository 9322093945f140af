// SPDX-License-Identifier: Apache-2.0
#include "UserLanguage.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace vimbrel;
using Names = std::vector<std::string>;

namespace {

TEST(UserLanguage, isChosenAsTheEnvironmentSays) {
  const struct {
    const char* what;
    LocaleVariables variables;
    Names wanted;
  } cases[] = {
      {"nothing is set", {}, {}},
      {"a usual desktop", {.lang = "de_DE.UTF-8"}, {"de_DE", "de"}},
      {"without an encoding", {.lang = "de"}, {"de"}},
      {"C with an encoding alone", {.lang = "C.UTF-8"}, {}},
      {"messages differ from the rest", {.lcMessages = "C", .lang = "de_DE.UTF-8"}, {}},
      {"all of it overridden",
       {.lcAll = "de_AT.utf8", .lcMessages = "C", .lang = "fr_FR.UTF-8"},
       {"de_AT", "de"}},
      {"an empty variable is not set", {.lcAll = "", .lang = "de_DE.UTF-8"}, {"de_DE", "de"}},
      {"a list", {.lang = "de_CH.UTF-8", .language = "rm:de_CH:de"}, {"rm", "de_CH", "de"}},
      {"English is in the list", {.lang = "de_DE.UTF-8", .language = "fr:en:de"}, {"fr"}},
      {"English first", {.lang = "de_DE.UTF-8", .language = "en_GB:de"}, {}},
      {"no language, but an encoding", {.lang = "C.UTF-8", .language = "de"}, {"de"}},
      {"no language at all", {.lcAll = "POSIX", .language = "de"}, {}},
      {"English", {.lang = "en_US.UTF-8"}, {}},
      {"English with a list", {.lang = "en_US.UTF-8", .language = "de"}, {"de"}},
      {"an encoding without all letters", {.lang = "de_DE.ISO-8859-1"}, {}},
      {"a modifier", {.lang = "ca_ES.UTF-8@valencia"}, {"ca_ES@valencia", "ca_ES", "ca@valencia", "ca"}},
      {"what is no name", {.lang = "de_DE.UTF-8", .language = "../../etc:de"}, {"de"}},
  };
  for (const auto& each : cases) {
    EXPECT_THAT(wantedLanguages(each.variables), testing::ElementsAreArray(each.wanted)) << each.what;
  }
}

}  // namespace
