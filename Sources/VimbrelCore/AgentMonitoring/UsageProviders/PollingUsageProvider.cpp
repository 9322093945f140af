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
    timer_ = queue_->every(interval_, interval_, TimerPrecision::shared, poll);
  }
  queue_->post(poll);
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
  auto events = readSource();
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
  if (!report_) findReport();
  return report_;
}

}  // namespace vimbrel
