// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <string_view>

#include "Support/JsonWriter.h"

namespace vimbrel {

/// A peer's text made fit for one line of a log: control characters and malformed UTF-8 become "?", and what
/// exceeds `maximumBytes` is cut at a character and replaced by "…".
[[nodiscard]] inline std::string printableText(std::string_view text, std::size_t maximumBytes = 200) {
  std::string result;
  while (!text.empty()) {
    const auto length = utf8SequenceLength(text);
    const auto byte = static_cast<unsigned char>(text.front());
    const bool plain = length > 1 || (length == 1 && byte >= 0x20 && byte != 0x7F);
    const auto taken = plain ? length : 1;
    if (result.size() + taken > maximumBytes) return result + "…";
    if (plain) {
      result.append(text.substr(0, taken));
    } else {
      result += '?';
    }
    text.remove_prefix(taken);
  }
  return result;
}

}  // namespace vimbrel
