// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>

namespace vimbrel {

/// The longest path, in bytes, that every socket of this program accepts. The portable address record holds
/// 104 bytes of path; one is kept for the terminating NUL and one as the margin that all peers agreed on.
inline constexpr std::size_t maximumSocketPathLength = 102;

}  // namespace vimbrel
