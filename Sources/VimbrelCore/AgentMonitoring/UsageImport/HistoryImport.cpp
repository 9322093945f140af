// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/UsageImport/HistoryImport.h"

#include <malloc.h>

#include <thread>
#include <utility>

namespace vimbrel {
namespace {

// After a reading of so much, the heap has room left that nothing will use again.
constexpr std::uint64_t largeImportBytes = 16U << 20U;

}  // namespace

void HistoryImport::run(UsageStore& store, TurnOwners& owners, const std::atomic<bool>& cancelled) {
  {
    const std::lock_guard guard(lock_);
    state_.isRunning = true;
    state_.progress = {};
  }
  ImportIndex index;
  const bool mayLackHistory = !std::exchange(hasBegun_, true) && store.mayLackHistory();
  if (opensEveryFile_.exchange(false) || mayLackHistory) {
    index.forgetFiles();
    // A store that is begun anew must not meet the old index again if this import is cut short.
    if (mayLackHistory) index.save();
  }
  const auto result =
      UsageImporter(sources_, store, index, owners, card_, clock_, std::thread::hardware_concurrency())
          .run(
              [this](const ImportProgress& progress) {
                const std::lock_guard guard(lock_);
                state_.progress = progress;
              },
              &cancelled);
  if (result.bytesRead >= largeImportBytes) ::malloc_trim(0);
  const std::lock_guard guard(lock_);
  state_.isRunning = false;
  state_.latest = result;
  ++state_.ended;
}

HistoryImport::State HistoryImport::state() const {
  const std::lock_guard guard(lock_);
  return state_;
}

}  // namespace vimbrel
