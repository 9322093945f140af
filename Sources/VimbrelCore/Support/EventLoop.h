// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <string>

#include "Support/TaskQueue.h"

namespace vimbrel {

/// The production queues: the main thread's loop, and two background threads that start with the first
/// background queue. Periodic timers of every queue are kept by the main loop, so that `shared` timers fire
/// in one wakeup. Queues may outlive the loop; tasks posted after its end are dropped.
class EventLoop final : public QueueProvider {
 public:
  EventLoop();
  ~EventLoop() override;
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;

  [[nodiscard]] std::shared_ptr<TaskQueue> mainQueue() override;
  [[nodiscard]] std::shared_ptr<TaskQueue> makeQueue(std::string label, QueueHome home) override;

  /// Runs the main queue on the calling thread until `stop`; may be called again after it returned.
  void run();
  /// Makes `run` return after the task in progress. Any thread; not from a signal handler.
  void stop();
  /// Runs `handler` on the main queue for every delivery of the given signal (SIGTERM, SIGINT, …).
  Token onSignal(int signalNumber, std::move_only_function<void()> handler);

  struct State;  // known to the queues

 private:
  std::shared_ptr<State> state_;
};

}  // namespace vimbrel
