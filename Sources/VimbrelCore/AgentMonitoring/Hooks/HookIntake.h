// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <expected>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string_view>

#include "AgentMonitoring/Hooks/HookEventReceiving.h"
#include "Support/Clock.h"
#include "Support/Fd.h"
#include "Support/Log.h"
#include "Support/TaskQueue.h"

namespace vimbrel {

/// The connections of one listening hook socket: accepts them, reads each one's document, answers and
/// delivers. One successful read decides; a connection that has not written yet waits aside for at most a
/// second and holds nobody up. Events are delivered in the order in which they were sent, as far as one
/// sender waits for one connection before it makes the next.
///
/// Queue: the one given, except where said otherwise. Lives until `close` and until the task in progress
/// ends.
class HookIntake : public std::enable_shared_from_this<HookIntake> {
 public:
  /// Takes over a non-blocking listening socket. The error is an errno.
  [[nodiscard]] static std::expected<std::shared_ptr<HookIntake>, int> open(
      Fd listener, std::shared_ptr<TaskQueue> queue, const Clock& clock, HookSenderObserver senderObserver);
  /// Any thread.
  void setDelegate(std::weak_ptr<HookEventReceiverDelegate> delegate);
  /// Starts accepting. Once, by the owner.
  void begin();
  /// Nothing further is accepted or answered, and what was answered is delivered when this returns. Any
  /// thread.
  void close();

 private:
  struct Waiting {
    Fd connection;
    std::chrono::nanoseconds deadline;
  };
  enum class Outcome { finished, silent };

  HookIntake(Fd listener, Fd poll, std::shared_ptr<TaskQueue> queue, const Clock& clock,
             HookSenderObserver senderObserver);
  /// A task for the queue that does nothing once this is gone.
  template <typename Step>
  auto whileAlive(Step step);

  void watchListener();
  void acceptReady();
  bool recoverFromAcceptError(int error);
  void pauseAccepting();
  void admit(Fd connection);
  Outcome serve(int connection);
  void handleDocument(int connection, std::string_view document);
  void setAside(Fd connection);
  void serveWaiting();
  void armExpiry();
  void expire();

  const std::shared_ptr<TaskQueue> queue_;
  const Clock& clock_;
  const HookSenderObserver senderObserver_;
  const Logger logger_{"hooks"};
  const std::unique_ptr<char[]> buffer_;  // For every read: a connection's bytes are used up before the next.
  std::atomic<bool> closed_{false};
  std::recursive_mutex deliveryLock_;  ///< from an event's answer until it is delivered
  std::mutex delegateLock_;
  std::weak_ptr<HookEventReceiverDelegate> delegate_;

  const Fd listener_;
  const Fd poll_;  // An epoll instance over the waiting connections.
  Fd reserve_;     // Given up when the process has no descriptor left, so that one more client can be served.
  std::map<std::uint64_t, Waiting> waiting_;  // By order of acceptance, so that the first is the oldest.
  std::uint64_t nextWaiting_ = 0;
  std::optional<std::chrono::nanoseconds> acceptFailureLoggedAt_;

  // After the descriptors: tokens end before what they watch is closed.
  Token listenerWatch_;
  Token pollWatch_;
  Token expiry_;
  Token resume_;
};

}  // namespace vimbrel
