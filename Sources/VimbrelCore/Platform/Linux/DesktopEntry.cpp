// SPDX-License-Identifier: Apache-2.0
#include "Platform/Linux/DesktopEntry.h"

#include <algorithm>

#include "Platform/ProcessLine.h"

namespace vimbrel {
namespace {

constexpr std::size_t maximumNameBytes = 256;
constexpr std::size_t maximumArguments = 64;

std::string_view withoutBlanks(std::string_view text) {
  constexpr std::string_view blanks = " \t\r";
  const auto first = text.find_first_not_of(blanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

/// Undoes the escapes that every text value may hold.
std::string unescaped(std::string_view value) {
  std::string result;
  for (std::size_t i = 0; i < value.size(); ++i) {
    if (value[i] != '\\' || i + 1 == value.size()) {
      result.push_back(value[i]);
      continue;
    }
    switch (const char c = value[++i]) {
      case 's':
        result.push_back(' ');
        break;
      case 'n':
        result.push_back('\n');
        break;
      case 't':
        result.push_back('\t');
        break;
      case 'r':
        result.push_back('\r');
        break;
      case '\\':
        result.push_back('\\');
        break;
      default:
        // Left alone for the quoting of `Exec`, which has escapes of its own.
        result.push_back('\\');
        result.push_back(c);
    }
  }
  return result;
}

std::vector<std::string> splitCommand(std::string_view text) {
  std::vector<std::string> arguments;
  std::string argument;
  bool isQuoted = false;
  bool hasArgument = false;
  bool isFieldCode = false;
  const auto finish = [&] {
    if (hasArgument && !(isFieldCode && argument.empty())) arguments.push_back(std::move(argument));
    argument.clear();
    hasArgument = isFieldCode = false;
  };
  for (std::size_t i = 0; i < text.size() && arguments.size() < maximumArguments; ++i) {
    const char c = text[i];
    const bool hasNext = i + 1 < text.size();
    if (!isQuoted && (c == ' ' || c == '\t' || c == '\n')) {
      finish();
      continue;
    }
    hasArgument = true;
    if (c == '"') {
      isQuoted = !isQuoted;
    } else if (c == '\\' && hasNext) {
      argument.push_back(text[++i]);
    } else if (c == '%' && hasNext && !isQuoted) {
      if (text[++i] == '%') {
        argument.push_back('%');
      } else {
        isFieldCode = true;
      }
    } else {
      argument.push_back(c);
    }
  }
  if (arguments.size() < maximumArguments) finish();
  return arguments;
}

/// The locale's names in the order in which they are preferred: lang_COUNTRY@MODIFIER, lang_COUNTRY,
/// lang@MODIFIER, lang.
std::vector<std::string> preferences(std::string_view locale) {
  const auto at = locale.find('@');
  const std::string modifier(at == std::string_view::npos ? "" : locale.substr(at));
  auto rest = locale.substr(0, at);
  rest = rest.substr(0, rest.find('.'));
  const auto underscore = rest.find('_');
  const std::string language(rest.substr(0, underscore));
  const std::string country(underscore == std::string_view::npos ? "" : rest.substr(underscore));
  if (language.empty() || language == "C" || language == "POSIX") return {};
  return {language + country + modifier, language + country, language + modifier, language};
}

bool isShowable(std::string_view name) {
  return !name.empty() && name.size() <= maximumNameBytes && isValidUtf8(name) &&
         std::ranges::none_of(name, [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; });
}

}  // namespace

std::optional<DesktopEntry> parseDesktopEntry(std::string_view text, std::string_view locale) {
  if (text.size() > maximumDesktopEntryBytes) return std::nullopt;
  const auto preferred = preferences(locale);
  DesktopEntry entry;
  auto nameRank = preferred.size() + 1;  // the plain name ranks after every translation
  bool isApplication = false;
  bool isForTerminal = false;
  bool isInGroup = false;
  while (!text.empty()) {
    const auto end = text.find('\n');
    const auto line = withoutBlanks(text.substr(0, end));
    text = end == std::string_view::npos ? std::string_view{} : text.substr(end + 1);
    if (line.starts_with('[')) {
      // Further groups hold the entry's extra actions.
      if (isInGroup) break;
      isInGroup = line == "[Desktop Entry]";
      continue;
    }
    const auto equals = line.find('=');
    if (!isInGroup || line.starts_with('#') || equals == std::string_view::npos) continue;
    const auto key = withoutBlanks(line.substr(0, equals));
    const auto value = withoutBlanks(line.substr(equals + 1));
    if (key == "Type") isApplication = value == "Application";
    if (key == "Terminal") isForTerminal = value == "true";
    if (key == "Hidden") entry.isHidden = value == "true";
    if (key == "Exec") entry.command = splitCommand(unescaped(value));
    if (key == "StartupWMClass") entry.startupWindowClass = unescaped(value);
    if (!key.starts_with("Name")) continue;
    auto rank = preferred.size();
    if (key.starts_with("Name[") && key.ends_with(']')) {
      const auto language = key.substr(5, key.size() - 6);
      const auto found = std::ranges::find(preferred, language);
      if (found == preferred.end()) continue;
      rank = static_cast<std::size_t>(found - preferred.begin());
    } else if (key != "Name") {
      continue;
    }
    auto name = unescaped(value);
    if (rank >= nameRank || !isShowable(name)) continue;
    nameRank = rank;
    entry.localizedName = std::move(name);
  }
  if (entry.isHidden) return entry;
  if (!isApplication || isForTerminal || entry.localizedName.empty() || entry.command.empty())
    return std::nullopt;
  return entry;
}

}  // namespace vimbrel
