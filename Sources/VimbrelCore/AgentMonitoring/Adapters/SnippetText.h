// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <initializer_list>
#include <string>
#include <string_view>

namespace vimbrel {

/// Joins the pieces of a snippet with the relay's path between every two of them.
inline std::string joinSnippet(std::initializer_list<std::string_view> pieces, std::string_view relayPath) {
  std::string text;
  bool first = true;
  for (const auto piece : pieces) {
    if (!first) text += relayPath;
    text += piece;
    first = false;
  }
  return text;
}

}  // namespace vimbrel
