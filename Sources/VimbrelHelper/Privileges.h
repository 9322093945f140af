// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace vimbrel {

/// Gives up, for good, every capability, the chance to gain any by running another program, and core dumps.
/// False when the kernel refuses any of it. Call it before the first thread starts.
[[nodiscard]] bool dropPrivileges();

}  // namespace vimbrel
