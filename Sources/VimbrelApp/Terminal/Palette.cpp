// SPDX-License-Identifier: Apache-2.0
#include "Terminal/Palette.h"

#include <unistd.h>

#include <cstdlib>

namespace vimbrel {
namespace {

// Select Graphic Rendition (ECMA-48, section 8.3.117).
std::string_view codeOf(Tone tone) {
  switch (tone) {
    case Tone::strong:
      return "1";
    case Tone::dim:
      return "2";
    case Tone::good:
      return "32";
    case Tone::warning:
      return "33";
    case Tone::bad:
      return "31";
    case Tone::plain:
      break;
  }
  return "";
}

}  // namespace

Palette Palette::forDescriptor(int descriptor) {
  const char* noColour = std::getenv("NO_COLOR");
  const char* terminal = std::getenv("TERM");
  const bool refused = noColour != nullptr && *noColour != '\0';
  const bool capable = terminal != nullptr && *terminal != '\0' && std::string_view(terminal) != "dumb";
  return Palette(!refused && capable && ::isatty(descriptor) == 1);
}

std::string Palette::paint(Tone tone, std::string_view text) const {
  const auto code = codeOf(tone);
  if (!enabled_ || code.empty() || text.empty()) return std::string(text);
  return "\x1b[" + std::string(code) + "m" + std::string(text) + "\x1b[0m";
}

}  // namespace vimbrel
