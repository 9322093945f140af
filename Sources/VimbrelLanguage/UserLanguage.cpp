// SPDX-License-Identifier: Apache-2.0
#include "UserLanguage.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>

#include "Catalogue.h"
#include "Say.h"

namespace vimbrel {
namespace {

std::string variable(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? "" : value;
}

std::string& spoken() {
  static std::string language = "en";
  return language;
}

/// Only what names of catalogues consist of: a variable must not lead to other files.
bool isName(const std::string& text) {
  return !text.empty() && text.size() < 40 &&
         std::ranges::all_of(
             text,
             [](char c) {
               return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                      c == '_' || c == '@';
             });
}

/// "de_AT.UTF-8@euro" as "de_AT@euro".
std::string withoutEncoding(const std::string& locale) {
  const auto modifier = std::min(locale.find('@'), locale.size());
  const auto encoding = std::min(locale.find('.'), modifier);
  return locale.substr(0, encoding) + locale.substr(modifier);
}

bool isUtf8(const std::string& locale) {
  const auto dot = locale.find('.');
  if (dot == std::string::npos) return true;
  std::string encoding;
  for (const char c : locale.substr(dot + 1, locale.find('@', dot) - dot - 1)) {
    if (c != '-') encoding += static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
  }
  return encoding == "utf8";
}

/// From the nearest to the farthest: "de_AT@euro", "de_AT", "de@euro", "de".
void addCatalogues(const std::string& name, std::vector<std::string>& languages) {
  const auto at = std::min(name.find('@'), name.size());
  const auto place = name.substr(0, at);
  const auto modifier = name.substr(at);
  const auto bare = place.substr(0, place.find('_'));
  for (const auto& each : {place + modifier, place, bare + modifier, bare}) {
    if (std::ranges::find(languages, each) == languages.end()) languages.push_back(each);
  }
}

}  // namespace

LocaleVariables LocaleVariables::fromProcess() {
  return {.lcAll = variable("LC_ALL"),
          .lcMessages = variable("LC_MESSAGES"),
          .lang = variable("LANG"),
          .language = variable("LANGUAGE")};
}

std::vector<std::string> wantedLanguages(const LocaleVariables& variables) {
  const auto& locale = !variables.lcAll.empty()        ? variables.lcAll
                       : !variables.lcMessages.empty() ? variables.lcMessages
                                                       : variables.lang;
  if (locale.empty() || locale == "C" || locale == "POSIX" || !isUtf8(locale)) return {};
  std::vector<std::string> languages;
  const auto& list = variables.language.empty() ? locale : variables.language;
  for (std::size_t begin = 0; begin <= list.size();) {
    const auto end = std::min(list.find(':', begin), list.size());
    const auto name = withoutEncoding(list.substr(begin, end - begin));
    begin = end + 1;
    if (name == "C" || name == "POSIX" || name == "en" || name.starts_with("en_")) break;
    if (isName(name)) addCatalogues(name, languages);
  }
  return languages;
}

void useUserLanguage() {
  const auto languages = wantedLanguages(LocaleVariables::fromProcess());
  if (languages.empty()) return;
  std::error_code error;
  const auto program = std::filesystem::canonical("/proc/self/exe", error);
  if (error) return;
  for (const auto& language : languages) {
    const auto file = (program.parent_path() / VIMBREL_CATALOGUES / language / "LC_MESSAGES" / "vimbrel.mo")
                          .lexically_normal();
    auto catalogue = Catalogue::open(file.native());
    // What is missing or broken must not keep the program from running: the next language, or English.
    if (!catalogue) continue;
    speak(std::make_shared<const Catalogue>(*std::move(catalogue)));
    spoken() = language;
    return;
  }
}

const std::string& spokenLanguage() { return spoken(); }

}  // namespace vimbrel
