// SPDX-License-Identifier: Apache-2.0
#include "Retelling.h"

#include <algorithm>
#include <charconv>

#include "Support/Sentence.h"

namespace vimbrel {
namespace {

/// Sentences in sentences; deeper than any that is made.
constexpr int deepest = 6;
constexpr std::size_t mostMarks = 9;
/// Between the facts of a summary ("12k context left · $1.23"), each of which stands for itself.
constexpr std::string_view listSeparator = " · ";

std::optional<std::int64_t> numberIn(std::string_view text) {
  std::int64_t number = 0;
  const auto parsed = std::from_chars(text.data(), text.data() + text.size(), number);
  return parsed.ec == std::errc{} && parsed.ptr == text.data() + text.size() ? std::optional(number)
                                                                             : std::nullopt;
}

}  // namespace

Retelling::Retelling(const Catalogue& catalogue) : catalogue_(catalogue) {
  catalogue.forEach(context, [this](const Catalogue::Entry& entry) {
    const bool isCounted = !entry.englishPlural.empty();
    for (const auto english : {entry.english, entry.englishPlural}) {
      auto pattern = patternOf(english);
      if (english.empty() || (pattern.marks.empty() && !isCounted)) continue;
      pattern.key = entry.english;
      pattern.isCounted = isCounted;
      patterns_.push_back(std::move(pattern));
    }
  });
  std::ranges::stable_sort(patterns_, std::greater{}, &Pattern::literalBytes);
}

Retelling::Pattern Retelling::patternOf(std::string_view text) {
  Pattern pattern;
  std::size_t begin = 0;
  for (std::size_t i = 0; i + 1 < text.size(); ++i) {
    if (text[i] != '%' || text[i + 1] < '1' || text[i + 1] > '9') continue;
    pattern.literals.push_back(text.substr(begin, i - begin));
    pattern.marks.push_back(static_cast<std::size_t>(text[i + 1] - '1'));
    begin = i + 2;
    ++i;
  }
  pattern.literals.push_back(text.substr(begin));
  for (const auto literal : pattern.literals) pattern.literalBytes += literal.size();
  return pattern;
}

std::optional<std::vector<std::string_view>> Retelling::valuesIn(std::string_view text,
                                                                 const Pattern& pattern) {
  const auto& literals = pattern.literals;
  if (!text.starts_with(literals.front()) || text.size() < pattern.literalBytes) return std::nullopt;
  std::vector<std::string_view> values(mostMarks);
  text.remove_prefix(literals.front().size());
  for (std::size_t i = 0; i < pattern.marks.size(); ++i) {
    const auto& next = literals[i + 1];
    const bool isLast = i + 1 == pattern.marks.size();
    if (isLast && !text.ends_with(next)) return std::nullopt;
    const auto end = isLast ? text.size() - next.size() : text.find(next);
    // A value is never empty: between two of them there would be nothing to tell where one ends.
    if (end == text.npos || end == 0) return std::nullopt;
    auto& value = values[pattern.marks[i]];
    const auto found = text.substr(0, end);
    if (!value.empty() && value != found) return std::nullopt;
    value = found;
    text.remove_prefix(end + next.size());
  }
  return text.empty() ? std::optional(std::move(values)) : std::nullopt;
}

std::string Retelling::retell(std::string_view english) const { return retell(english, 0); }

std::string Retelling::retell(std::string_view english, int depth) const {
  if (english.empty() || depth > deepest) return std::string(english);
  if (const auto whole = catalogue_.find(context, english)) return std::string(*whole);
  if (!english.contains(listSeparator)) return known(english, depth).value_or(std::string(english));
  std::string list;
  for (std::size_t begin = 0; begin <= english.size();) {
    const auto end = std::min(english.find(listSeparator, begin), english.size());
    if (begin > 0) list += listSeparator;
    list += retell(english.substr(begin, end - begin), depth + 1);
    begin = end + listSeparator.size();
  }
  return list;
}

std::optional<std::string> Retelling::known(std::string_view english, int depth) const {
  for (const auto& pattern : patterns_) {
    const auto values = valuesIn(english, pattern);
    if (!values) continue;
    auto number = std::optional<std::int64_t>(1);
    if (pattern.isCounted && std::ranges::find(pattern.marks, 0U) != pattern.marks.end())
      number = numberIn(values->front());
    if (!number) continue;
    const auto translation = pattern.isCounted ? catalogue_.find(context, pattern.key, *number)
                                               : catalogue_.find(context, pattern.key);
    if (!translation) continue;
    std::vector<std::string> told;
    told.reserve(mostMarks);
    for (const auto value : *values) told.push_back(retell(value, depth + 1));
    if (told.front().empty())
      told.front() = "1";  // "1 session active" was "once": its translation may count.
    const std::vector<std::string_view> views(told.begin(), told.end());
    return filledIn(*translation, views.data(), views.size());
  }
  return std::nullopt;
}

}  // namespace vimbrel
