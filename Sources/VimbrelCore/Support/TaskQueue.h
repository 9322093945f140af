// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <utility>

namespace vimbrel {

/// Keeps a timer, a watch or a subscription alive; dropping it cancels. Dropping a token on its own queue
/// guarantees that the callback never runs again; from another thread a call that has already begun may
/// finish.
class [[nodiscard]] Token {
 public:
  Token() = default;
  explicit Token(std::function<void()> cancel) : cancel_(std::move(cancel)) {}
  Token(Token&& other) noexcept : cancel_(std::exchange(other.cancel_, nullptr)) {}
  Token& operator=(Token&& other) noexcept {
    if (this != &other) {
      reset();
      cancel_ = std::exchange(other.cancel_, nullptr);
    }
    return *this;
  }
  ~Token() { reset(); }

  void reset() {
    if (auto cancel = std::exchange(cancel_, nullptr)) cancel();
  }
  explicit operator bool() const { return static_cast<bool>(cancel_); }

 private:
  std::function<void()> cancel_;
};

/// How exactly a repeating timer keeps its time. `shared` timers may be moved by up to one second so that
/// they fire together with others: the process then wakes once for all of them.
enum class TimerPrecision { exact, shared };

/// A labelled queue that runs one task at a time, in order. Production queues run on threads (`EventLoop`);
/// the queues of `VirtualTime` run in virtual time, in one thread, deterministically.
class TaskQueue {
 public:
  using Task = std::move_only_function<void()>;

  virtual ~TaskQueue() = default;
  [[nodiscard]] virtual const std::string& label() const = 0;

  /// Runs `task` later, never inline. Any thread.
  virtual void post(Task task) = 0;

  /// Runs `task` once after `delay`. Any thread.
  virtual Token after(std::chrono::nanoseconds delay, Task task) = 0;

  /// Runs `task` first after `first`, then every `interval` (at least 1 ms). A late queue skips the missed
  /// firings rather than making up for them. Any thread.
  virtual Token every(std::chrono::nanoseconds first, std::chrono::nanoseconds interval,
                      TimerPrecision precision, std::move_only_function<void()> task) = 0;

  /// Runs `ready` whenever the descriptor is readable (or has failed), for as long as the token lives;
  /// `ready` must read until it would block. A descriptor has one watch at a time, for reading or for
  /// writing. The descriptor stays the caller's and must outlive the token. Virtual queues have no
  /// descriptors: there the watch never fires. Any thread.
  virtual Token watchReadable(int descriptor, std::move_only_function<void()> ready) = 0;

  /// As `watchReadable`, but once, when the descriptor can be written to.
  virtual Token onceWritable(int descriptor, Task ready) = 0;

  /// True on the thread that is running one of this queue's tasks.
  [[nodiscard]] virtual bool isCurrent() const = 0;
};

/// Where a queue's tasks run. `mainThread` queues share the main thread, so a periodic task costs no further
/// wakeup; anything that may block belongs on `background`.
enum class QueueHome { mainThread, background };

/// Makes queues. The main queue is the main thread's loop.
class QueueProvider {
 public:
  virtual ~QueueProvider() = default;
  [[nodiscard]] virtual std::shared_ptr<TaskQueue> mainQueue() = 0;
  [[nodiscard]] virtual std::shared_ptr<TaskQueue> makeQueue(std::string label, QueueHome home) = 0;
};

}  // namespace vimbrel
