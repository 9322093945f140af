// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

namespace vimbrel {

/// The environment's variables that name the user's languages, empty where they are not set.
struct LocaleVariables {
  std::string lcAll;
  std::string lcMessages;
  std::string lang;
  std::string language;

  [[nodiscard]] static LocaleVariables fromProcess();
};

/// The languages in the order in which they are wanted, as catalogues are named: "de_AT", "de". Empty where
/// English is wanted first. The first of LC_ALL, LC_MESSAGES and LANG that is set counts; LANGUAGE, a list
/// with colons, goes before it, unless it is "C" or "POSIX". A locale that says to be in another encoding
/// than UTF-8 gets English, which every encoding has.
[[nodiscard]] std::vector<std::string> wantedLanguages(const LocaleVariables& variables);

/// From now on `say` and `retell` speak the user's language, if there is a catalogue for it and English is
/// not wanted first. The catalogues stand where the installation puts them, seen from the running program.
/// Once, before the first text is made. The C library's locale is left alone: numbers are written as before.
void useUserLanguage();

/// The language that is spoken ("de"), or "en".
[[nodiscard]] const std::string& spokenLanguage();

}  // namespace vimbrel
