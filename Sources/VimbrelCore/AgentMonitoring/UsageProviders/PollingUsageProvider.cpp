// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/UsageProviders/PollingUsageProvider.h"

namespace vimbrel {

PollingUsageProvider::PollingUsageProvider(AgentType agent, std::shared_ptr<TaskQueue> queue,
                                           std::chrono::milliseconds interval, const Clock& clock,
                                           Logger logger, std::string startMessage)
    : agent_(agent),
      queue_(std::move(queue)),
      interval_(interval),
      clock_(clock),
      logger_(std::move(logger)),
      startMessage_(std::move(startMessage)) {}

void PollingUsageProvider::startMonitoring(EventCallback onEvent) {
  const auto poll = [weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->pollLatestEvents();
  };
  {
    const std::lock_guard guard(lock_);
    onEvent_ = std::move(onEvent);
    const auto tick = [weak = weak_from_this(), poll] {
      const auto self = weak.lock();
      if (!self || self->isReading_.exchange(true)) return;
      // A tick never waits: a source that is being read is looked at again at the next.
      std::unique_lock looking(self->sourceLock_, std::try_to_lock);
      if (!looking || !self->sourceMayHaveChanged()) {
        self->isReading_ = false;
        return;
      }
      self->queue_->post([weak, poll] {
        poll();
        if (const auto reader = weak.lock()) reader->isReading_ = false;
      });
    };
    if (tickQueue_) {
      timer_ = tickQueue_->every(interval_, interval_, TimerPrecision::shared, tick);
      tickQueue_->post(tick);
    } else {
      timer_ = queue_->every(interval_, interval_, TimerPrecision::shared, poll);
    }
  }
  if (!tickQueue_) queue_->post(poll);
  logger_.info("%s", startMessage_.c_str());
}

void PollingUsageProvider::stopMonitoring() {
  Token timer;
  {
    const std::lock_guard guard(lock_);
    timer = std::move(timer_);
    onEvent_ = nullptr;
  }
}

std::vector<UsageEvent> PollingUsageProvider::pollLatestEvents() {
  std::vector<UsageEvent> events;
  {
    const std::lock_guard reading(sourceLock_);
    events = readSource();
  }
  EventCallback callback;
  {
    const std::lock_guard guard(lock_);
    callback = onEvent_;
  }
  if (callback) {
    for (const auto& event : events) callback(event);
  }
  return events;
}

std::optional<ProviderBudgetReport> PollingUsageProvider::latestBudgetReport() {
  const std::lock_guard reading(sourceLock_);
  if (!report_) findReport();
  return report_;
}

}  // namespace vimbrel
