// SPDX-License-Identifier: Apache-2.0
#include "Support/DurationText.h"

#include <charconv>
#include <cmath>
#include <cstdint>

#include "Support/Sentence.h"

namespace vimbrel {
namespace {

constexpr double maximumSeconds = 100.0 * 366 * 24 * 3600;

/// The seconds that one unit stands for, or 0.
double unitSeconds(std::string_view unit) {
  if (unit == "s" || unit == "sec") return 1;
  if (unit == "m" || unit == "min") return 60;
  if (unit == "h") return 3600;
  if (unit == "d") return 86400;
  return 0;
}

bool isLetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

std::unexpected<std::string> notADuration(std::string_view text) {
  return std::unexpected(sentence("\"%1\" is not a duration; examples: 90, 90s, 45m, 1h30m, 2d", {text}));
}

}  // namespace

std::expected<Seconds, std::string> parseDuration(std::string_view text) {
  if (text.empty()) return notADuration(text);
  double total = 0;
  for (auto rest = text; !rest.empty();) {
    // from_chars would also take "inf", "nan" and exponents, which nobody types as a duration.
    const auto digits = rest.find_first_not_of("0123456789.");
    const auto number = rest.substr(0, digits);
    double value = 0;
    const auto [end, fault] = std::from_chars(number.data(), number.data() + number.size(), value);
    if (fault != std::errc{} || end != number.data() + number.size()) return notADuration(text);
    rest.remove_prefix(number.size());
    std::size_t letters = 0;
    while (letters < rest.size() && isLetter(rest[letters])) ++letters;
    const bool isPlainNumber = letters == 0 && rest.empty() && number.size() == text.size();
    const double unit = isPlainNumber ? 1 : unitSeconds(rest.substr(0, letters));
    if (unit == 0) return notADuration(text);
    rest.remove_prefix(letters);
    total += value * unit;
  }
  if (!(total <= maximumSeconds)) return std::unexpected(sentence("\"%1\" is longer than 100 years", {text}));
  return Seconds{total};
}

std::string formatDuration(Seconds duration) {
  if (std::isnan(duration.count())) return sentence("an unknown time");
  if (duration.count() < 0) return "-" + formatDuration(-duration);
  if (duration.count() > maximumSeconds) return sentence("more than 100 years");
  const auto seconds = static_cast<std::int64_t>(duration.count());
  const auto join = [](std::int64_t large, const char* largeUnit, std::int64_t small, const char* smallUnit) {
    auto result = std::to_string(large) + largeUnit;
    if (small != 0) result += " " + std::to_string(small) + smallUnit;
    return result;
  };
  if (seconds < 60) return std::to_string(seconds) + " s";
  if (seconds < 3600) return join(seconds / 60, " min", seconds % 60, " s");
  if (seconds < 86400) return join(seconds / 3600, " h", seconds / 60 % 60, " min");
  return join(seconds / 86400, " d", seconds / 3600 % 24, " h");
}

}  // namespace vimbrel
