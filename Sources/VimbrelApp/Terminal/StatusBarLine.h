// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "Support/Instant.h"

namespace vimbrel {

enum class StatusBarFormat : std::uint8_t {
  plain,     ///< text
  waybar,    ///< an object with "text", "alt", "tooltip", "class" and "percentage"; texts are Pango markup
  i3blocks,  ///< an object with "full_text", "short_text" and "color"
  polybar,   ///< text with colour tags
};

/// "plain", "waybar", "i3blocks", "polybar".
[[nodiscard]] std::optional<StatusBarFormat> statusBarFormatFromName(std::string_view name);

/// The state of the control protocol's "status" on one line, as a status bar reads it. Nothing in it changes
/// by the mere passing of time.
[[nodiscard]] std::string statusBarLine(const nlohmann::json& state, StatusBarFormat format, Instant now);

/// The same while the application is not running.
[[nodiscard]] std::string stoppedBarLine(StatusBarFormat format);

}  // namespace vimbrel
