// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <string_view>

namespace vimbrel {

/// What was built: "1.0.0".
[[nodiscard]] std::string_view versionNumber();
/// The commit it was built from, 12 digits, with "+" when the sources had been changed since; "unknown" when
/// the sources were taken out of version control.
[[nodiscard]] std::string_view buildCommit();
/// What `--version` prints after the program's name: "1.0.0 (0123456789ab)".
[[nodiscard]] std::string versionText();

}  // namespace vimbrel
