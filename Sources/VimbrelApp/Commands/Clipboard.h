// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <expected>
#include <string>

namespace vimbrel {

/// Puts the text on the user's clipboard: by the Wayland or X11 program for it that is installed, else by
/// asking the terminal, which works over SSH too. The result says who was asked ("wl-copy", "the terminal");
/// the error is a sentence that says what is missing.
[[nodiscard]] std::expected<std::string, std::string> copyToClipboard(const std::string& text);

}  // namespace vimbrel
