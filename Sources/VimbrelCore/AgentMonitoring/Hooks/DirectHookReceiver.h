// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <mutex>
#include <string>

#include "AgentMonitoring/Hooks/HookEventReceiving.h"
#include "Support/Clock.h"
#include "Support/TaskQueue.h"

namespace vimbrel {

/// A hook receiver without a socket: the program hands it documents, which it treats as the socket's receiver
/// does. For runs on virtual time. Any thread.
class DirectHookReceiver final : public HookEventReceiving {
 public:
  /// `clock` must outlive the receiver and its queue's tasks.
  DirectHookReceiver(QueueProvider& queues, const Clock& clock);

  void setDelegate(std::weak_ptr<HookEventReceiverDelegate> delegate) override;
  [[nodiscard]] std::expected<void, HookReceiverError> start() override;
  void stop() override;
  [[nodiscard]] bool isRunning() const override;

  /// Takes one document as a client would send it. What cannot be read is dropped, as is everything while the
  /// receiver is stopped.
  void send(std::string document);

 private:
  struct State {
    mutable std::mutex lock;
    std::weak_ptr<HookEventReceiverDelegate> delegate;
    bool isRunning = false;
  };
  const std::shared_ptr<State> state_ = std::make_shared<State>();
  const std::shared_ptr<TaskQueue> queue_;
  const Clock& clock_;
};

}  // namespace vimbrel
