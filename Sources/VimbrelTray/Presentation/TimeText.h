// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "Support/Instant.h"

namespace vimbrel::desktop {

/// "14:05" today, "tomorrow, 06:00", "Sat 31 Jan, 06:00" on other days; the user's time zone.
[[nodiscard]] std::string momentText(Instant moment, Instant now);

/// "0:07", "12:30", "1:02:05", "3 d 4:05:06": a duration that counts up, with its seconds.
[[nodiscard]] std::string runningText(Seconds elapsed);

/// "just now", "40 s ago", "3 h 5 min ago".
[[nodiscard]] std::string agoText(Instant moment, Instant now);

/// When a pause "until tomorrow" ends: the next six o'clock in the morning of the user's calendar that is at
/// least four hours away, because whoever pauses at night means the morning after the sleep.
[[nodiscard]] Instant nextMorning(Instant now);

}  // namespace vimbrel::desktop
