// SPDX-License-Identifier: Apache-2.0
// The helper's state file, whatever became of it.
#include <cmath>
#include <cstdint>
#include <cstdlib>

#include "DeepHold/DeepHoldStateRecord.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace vimbrel;
  const auto record = decodeDeepHoldStateRecord({reinterpret_cast<const char*>(data), size});
  if (!record) return 0;
  const auto again = decodeDeepHoldStateRecord(encode(*record));
  if (!again) std::abort();
  // A date far from the present loses digits when it changes its zero, and nothing else does.
  const bool near = !record->expiresAt || std::fabs(unixSeconds(*record->expiresAt)) < 1e9;
  if (near && (again->isHolding != record->isHolding || again->activeLeaseId != record->activeLeaseId ||
               again->originalSleepDisabled != record->originalSleepDisabled)) {
    std::abort();
  }
  return 0;
}
