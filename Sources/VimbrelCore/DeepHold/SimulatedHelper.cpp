// SPDX-License-Identifier: Apache-2.0
#include "DeepHold/SimulatedHelper.h"

#include <memory>

#include "DeepHold/DeepHoldLeaseStore.h"

namespace vimbrel {
namespace {

class MemorySetting final : public SystemPowerControlling {
 public:
  [[nodiscard]] bool readSleepDisabled() override { return disabled_; }
  bool writeSleepDisabled(bool disabled) override {
    disabled_ = disabled;
    return true;
  }

 private:
  bool disabled_ = false;
};

}  // namespace

HelperExchange simulatedHelper(const Clock& clock) {
  const auto store = std::make_shared<DeepHoldLeaseStore>(std::make_shared<MemorySetting>(), std::nullopt,
                                                          [&clock] { return clock.now(); });
  return [store](const HelperRequest& request) -> std::optional<HelperResponse> {
    // Nobody sees the setting between two requests, so that the watchdog need not run there.
    store->checkWatchdog();
    HelperResponse response{true, std::nullopt, std::nullopt};
    const auto lease = request.leaseId.value_or("");
    switch (request.command) {
      case HelperCommand::status:
        response.status = store->status();
        break;
      case HelperCommand::acquire:
        response.ok = store->acquire(lease, request.ttlSeconds.value_or(0));
        break;
      case HelperCommand::renew:
        response.ok = store->renew(lease, request.ttlSeconds.value_or(0));
        break;
      case HelperCommand::release:
        response.ok = store->release(request.leaseId);
        break;
      case HelperCommand::uninstall:
        response.ok = false;
        break;
    }
    return response;
  };
}

}  // namespace vimbrel
