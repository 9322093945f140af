// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/Hooks/DirectHookReceiver.h"

#include <utility>

namespace vimbrel {

DirectHookReceiver::DirectHookReceiver(QueueProvider& queues, const Clock& clock)
    : queue_(queues.makeQueue("com.vimbrel.hookreceiver", QueueHome::background)), clock_(clock) {}

void DirectHookReceiver::setDelegate(std::weak_ptr<HookEventReceiverDelegate> delegate) {
  const std::lock_guard guard(state_->lock);
  state_->delegate = std::move(delegate);
}

std::expected<void, HookReceiverError> DirectHookReceiver::start() {
  const std::lock_guard guard(state_->lock);
  state_->isRunning = true;
  return {};
}

void DirectHookReceiver::stop() {
  const std::lock_guard guard(state_->lock);
  state_->isRunning = false;
}

bool DirectHookReceiver::isRunning() const {
  const std::lock_guard guard(state_->lock);
  return state_->isRunning;
}

void DirectHookReceiver::send(std::string document) {
  queue_->post([state = state_, &clock = clock_, document = std::move(document)] {
    std::shared_ptr<HookEventReceiverDelegate> delegate;
    {
      const std::lock_guard guard(state->lock);
      if (state->isRunning) delegate = state->delegate.lock();
    }
    const auto event = HookEvent::parse(document, clock.now());
    if (delegate && event) delegate->didReceiveHookEvent(*event);
  });
}

}  // namespace vimbrel
