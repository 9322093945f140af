// SPDX-License-Identifier: Apache-2.0
#include "Support/Instant.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>

namespace vimbrel {
namespace {

using namespace std::chrono;

/// Takes exactly `digits` decimal digits off the front of `text`.
std::optional<int> takeNumber(std::string_view& text, std::size_t digits) {
  if (text.size() < digits) return std::nullopt;
  int value = 0;
  for (std::size_t i = 0; i < digits; ++i) {
    if (text[i] < '0' || text[i] > '9') return std::nullopt;
    value = value * 10 + (text[i] - '0');
  }
  text.remove_prefix(digits);
  return value;
}

bool takeCharacter(std::string_view& text, char character) {
  if (text.empty() || text.front() != character) return false;
  text.remove_prefix(1);
  return true;
}

/// The fraction after a decimal point, as a number in [0, 1). Absent when no digit follows the point.
std::optional<double> takeFraction(std::string_view& text) {
  std::string digits = "0.";
  while (!text.empty() && text.front() >= '0' && text.front() <= '9') {
    digits += text.front();
    text.remove_prefix(1);
  }
  if (digits.size() == 2) return std::nullopt;
  double value = 0;
  std::from_chars(digits.data(), digits.data() + digits.size(), value);
  return value;
}

/// Offset from UTC in seconds, from "Z", "+02:00", "+0200" or "+02".
std::optional<int> takeOffset(std::string_view& text) {
  if (takeCharacter(text, 'Z') || takeCharacter(text, 'z')) return 0;
  int sign = 0;
  if (takeCharacter(text, '+')) sign = 1;
  if (sign == 0 && takeCharacter(text, '-')) sign = -1;
  if (sign == 0) return std::nullopt;
  const auto hour = takeNumber(text, 2);
  if (!hour || *hour > 23) return std::nullopt;
  if (text.empty()) return sign * *hour * 3600;
  takeCharacter(text, ':');
  const auto minute = takeNumber(text, 2);
  if (!minute || *minute > 59) return std::nullopt;
  return sign * (*hour * 3600 + *minute * 60);
}

}  // namespace

std::string formatIso8601(Instant instant, bool fraction) {
  // 0001-01-01 and 9999-12-31T23:59:59, the years that the format can write with four digits.
  constexpr double earliest = -62135596800.0;
  constexpr double latest = 253402300799.0;
  double seconds = unixSeconds(instant);
  if (std::isnan(seconds)) seconds = 0;
  seconds = std::clamp(seconds, earliest, latest);
  auto whole = static_cast<long long>(std::floor(seconds));
  auto thousandths = static_cast<int>(std::lround((seconds - static_cast<double>(whole)) * 1000));
  if (thousandths == 1000) {
    thousandths = 0;
    ++whole;
  }
  const sys_seconds point{std::chrono::seconds{whole}};
  const auto day = floor<days>(point);
  const year_month_day date{day};
  const hh_mm_ss time{point - day};
  char text[64];
  int length =
      std::snprintf(text, sizeof text, "%04d-%02u-%02uT%02ld:%02ld:%02ld", static_cast<int>(date.year()),
                    static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                    static_cast<long>(time.hours().count()), static_cast<long>(time.minutes().count()),
                    static_cast<long>(time.seconds().count()));
  std::string result(text, static_cast<std::size_t>(length));
  if (fraction && thousandths != 0) {
    length = std::snprintf(text, sizeof text, ".%03d", thousandths);
    result.append(text, static_cast<std::size_t>(length));
  }
  return result + "Z";
}

std::optional<Instant> parseIso8601(std::string_view text) {
  const auto yearNumber = takeNumber(text, 4);
  if (!yearNumber || !takeCharacter(text, '-')) return std::nullopt;
  const auto monthNumber = takeNumber(text, 2);
  if (!monthNumber || !takeCharacter(text, '-')) return std::nullopt;
  const auto dayNumber = takeNumber(text, 2);
  if (!dayNumber) return std::nullopt;
  if (!takeCharacter(text, 'T') && !takeCharacter(text, 't') && !takeCharacter(text, ' '))
    return std::nullopt;
  const auto hour = takeNumber(text, 2);
  if (!hour || *hour > 24 || !takeCharacter(text, ':')) return std::nullopt;
  const auto minute = takeNumber(text, 2);
  if (!minute || *minute > 59 || !takeCharacter(text, ':')) return std::nullopt;
  const auto second = takeNumber(text, 2);
  if (!second || *second > 60) return std::nullopt;
  double fraction = 0;
  if (takeCharacter(text, '.') || takeCharacter(text, ',')) {
    const auto digits = takeFraction(text);
    if (!digits) return std::nullopt;
    fraction = *digits;
  }
  const auto offset = takeOffset(text);
  if (!offset || !text.empty()) return std::nullopt;

  const year_month_day date{year{*yearNumber}, month{static_cast<unsigned>(*monthNumber)},
                            day{static_cast<unsigned>(*dayNumber)}};
  if (!date.ok()) return std::nullopt;
  const auto midnight = sys_days{date}.time_since_epoch();
  const auto whole =
      duration_cast<std::chrono::seconds>(midnight).count() + *hour * 3600 + *minute * 60 + *second - *offset;
  return instantFromUnixSeconds(static_cast<double>(whole) + fraction);
}

}  // namespace vimbrel
