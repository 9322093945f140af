// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Platform/ProcessAncestry.h"

namespace vimbrel {

/// Ancestors by `/proc`. A process's `startMark` is its start in clock ticks since the machine started.
class ProcAncestry final : public ProcessAncestry {
 public:
  [[nodiscard]] std::vector<AncestorProcess> ancestorsOf(std::int32_t pid) override;
  [[nodiscard]] bool isAlive(const ProcessIdentity& process) override;
};

}  // namespace vimbrel
