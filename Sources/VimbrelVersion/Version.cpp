// SPDX-License-Identifier: Apache-2.0
#include "Version.h"

#include "Commit.h"

namespace vimbrel {

std::string_view versionNumber() { return VIMBREL_VERSION; }

std::string_view buildCommit() { return VIMBREL_COMMIT; }

std::string versionText() { return VIMBREL_VERSION " (" VIMBREL_COMMIT ")"; }

}  // namespace vimbrel
