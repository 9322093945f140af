// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "Support/Instant.h"
#include "Terminal/Palette.h"
#include "Terminal/TerminalSize.h"

namespace vimbrel {

/// The state of the control protocol's "status" in lines for people: what `vimbrel status` prints and the
/// live views show. `width` 0: as wide as it takes.
[[nodiscard]] std::vector<std::string> statusLines(const nlohmann::json& state, std::size_t width,
                                                   const Palette& palette, Instant now);

/// The same as a full screen of exactly this size, with `footer` on its last line and `notice`, unless it is
/// empty, above it.
[[nodiscard]] std::vector<std::string> statusScreen(const nlohmann::json& state, TerminalSize size,
                                                    const Palette& palette, Instant now,
                                                    const std::string& footer, const std::string& notice);

/// The sessions as a table, without a heading when there are none.
[[nodiscard]] std::vector<std::string> sessionLines(const nlohmann::json& sessions, std::size_t width,
                                                    const Palette& palette, Instant now);

/// What is held, by what, or plainly what is not and why: one sentence.
[[nodiscard]] std::string heldSentence(const nlohmann::json& state);
/// Whether that state holds by its rules, and this machine can fall asleep all the same: every mechanism
/// refused, or only a simulated one is held.
[[nodiscard]] bool isHeldInVain(const nlohmann::json& state);

/// The time of day, with the date unless it is today's, in the user's time zone.
[[nodiscard]] std::string localTime(Instant instant, Instant now);

}  // namespace vimbrel
