// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace vimbrel {

/// A duration in seconds as a 64-bit float.
using Seconds = std::chrono::duration<double>;

/// A point in wall-clock time: seconds since 1970-01-01 00:00:00 UTC as a 64-bit float. The float keeps the
/// exact number an outside document gave, so a time that is read and written again is the same number.
using Instant = std::chrono::sys_time<Seconds>;

constexpr Instant instantFromUnixSeconds(double seconds) { return Instant{Seconds{seconds}}; }
constexpr double unixSeconds(Instant instant) { return instant.time_since_epoch().count(); }

/// 2001-01-01 00:00:00 UTC in seconds since 1970: the zero of the dates in the usage store, in the helper's
/// state file and on the helper's socket.
inline constexpr double referenceDateUnixSeconds = 978307200.0;

constexpr Instant instantFromReferenceSeconds(double seconds) {
  return instantFromUnixSeconds(seconds + referenceDateUnixSeconds);
}
constexpr double referenceSeconds(Instant instant) { return unixSeconds(instant) - referenceDateUnixSeconds; }

/// "2026-01-31T10:00:00Z", with three decimals when the instant has a fraction of a second and `fraction` is
/// set. Years outside 1 to 9999 and values that are not numbers are clamped to that range.
[[nodiscard]] std::string formatIso8601(Instant instant, bool fraction = false);

/// Reads "2026-01-31T10:00:00Z" with any number of fractional digits and "Z" or an offset ("+02:00",
/// "+0200"); a blank instead of the "T" is accepted. Absent when the text is anything else.
[[nodiscard]] std::optional<Instant> parseIso8601(std::string_view text);

}  // namespace vimbrel
