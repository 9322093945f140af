// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace vimbrel {

/// A fresh random (version 4) UUID in its standard text form, lower case. Any thread.
[[nodiscard]] std::string randomUuid();

}  // namespace vimbrel
