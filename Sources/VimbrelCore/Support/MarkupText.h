// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <string_view>

namespace vimbrel {

/// The text as it stands within the elements of an XML-like markup, such as Pango's and that of
/// notifications.
inline std::string escapedForMarkup(std::string_view text) {
  std::string result;
  for (const char c : text) {
    if (c == '&') {
      result += "&amp;";
    } else if (c == '<') {
      result += "&lt;";
    } else if (c == '>') {
      result += "&gt;";
    } else {
      result += c;
    }
  }
  return result;
}

}  // namespace vimbrel
