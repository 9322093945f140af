// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

namespace vimbrel::desktop {

/// How a text or a mark is meant; the views choose the colour. Never the only carrier of a meaning: the text
/// says it too.
enum class Tone : std::uint8_t { plain, dim, good, warning, bad };

}  // namespace vimbrel::desktop
