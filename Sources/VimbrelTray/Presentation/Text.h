// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <string>
#include <string_view>

namespace vimbrel::desktop {

/// Gives the user's language for a text; English by itself. Called on the user interface's thread only.
using Translator = std::function<std::string(const char* english)>;

/// Installed once at the start by the program, before any text is made.
void setTranslator(Translator translator);

/// A text in the user's language. Every text that this library makes passes here, as a literal, so that
/// translation tools find it (with `-tr-function-alias tr+=say`).
[[nodiscard]] std::string say(const char* english);

/// The same with "%1", "%2", … replaced. Values that contain such marks are not replaced again.
[[nodiscard]] std::string say(const char* english, std::initializer_list<std::string_view> values);

/// One of two texts by number, "%1" being the number.
[[nodiscard]] std::string sayCount(std::int64_t count, const char* one, const char* many);

}  // namespace vimbrel::desktop
