// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <string>

namespace vimbrel {

/// "Mon", in the language that is spoken, whatever the C library's locale is.
[[nodiscard]] std::string weekdayName(std::chrono::weekday day);

/// "Sat 31 Jan"; what order that has is the language's own.
[[nodiscard]] std::string shortDate(std::chrono::year_month_day day);

}  // namespace vimbrel
