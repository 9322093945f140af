// SPDX-License-Identifier: Apache-2.0
#include "Support/EventLoop.h"

#include <algorithm>
#include <asio.hpp>
#include <atomic>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>
#include <unordered_map>
#include <vector>

#include "Support/TryThread.h"

namespace vimbrel {

using namespace std::chrono_literals;
using SteadyPoint = asio::steady_timer::time_point;

struct EventLoop::State {
  asio::io_context main{1};
  asio::io_context background{2};
  std::optional<asio::executor_work_guard<asio::io_context::executor_type>> mainWork{main.get_executor()};
  std::optional<asio::executor_work_guard<asio::io_context::executor_type>> backgroundWork{
      background.get_executor()};
  std::once_flag threadsStarted;
  std::vector<std::thread> threads;
  SteadyPoint tickOrigin = asio::steady_timer::clock_type::now();
  std::shared_ptr<TaskQueue> mainQueue;
  std::mutex attachedLock;
  /// How timers and watches let go of the loops when these end before their tokens do.
  std::unordered_map<const void*, std::function<void()>> attached;

  void attach(const void* operation, std::function<void()> letGo) {
    const std::lock_guard guard(attachedLock);
    attached.insert_or_assign(operation, std::move(letGo));
  }
  void detach(const void* operation) {
    const std::lock_guard guard(attachedLock);
    attached.erase(operation);
  }
  void letAllGo() {
    decltype(attached) all;
    {
      const std::lock_guard guard(attachedLock);
      all.swap(attached);
    }
    for (const auto& [operation, letGo] : all) letGo();
  }

  /// Makes what the loops need now rather than at the first timer or watch, when the process may have no
  /// descriptor left and nobody could take the failure.
  State() {
    const asio::steady_timer timer(main);
    const asio::posix::stream_descriptor watches[] = {asio::posix::stream_descriptor(main),
                                                      asio::posix::stream_descriptor(background)};
  }

  void startThreads() {
    std::call_once(threadsStarted, [this] {
      const SignalsLeftToOthers duringTheStart;
      for (int i = 0; i < 2; ++i) threads.emplace_back([this] { background.run(); });
    });
  }

  /// The first whole tick (one second from the loop's start) at or after `point`.
  [[nodiscard]] SteadyPoint alignedToTick(SteadyPoint point) const {
    const auto sinceOrigin = point - tickOrigin;
    const auto ticks = (sinceOrigin + 1s - 1ns) / 1s;
    return tickOrigin + ticks * 1s;
  }
};

namespace {

thread_local const TaskQueue* runningQueue = nullptr;

class RunningMark {
 public:
  explicit RunningMark(const TaskQueue* queue) : previous_(std::exchange(runningQueue, queue)) {}
  ~RunningMark() { runningQueue = previous_; }
  RunningMark(const RunningMark&) = delete;
  RunningMark& operator=(const RunningMark&) = delete;

 private:
  const TaskQueue* previous_;
};

/// A timer of one firing or many. Its Asio object is touched on the main loop only.
struct TimerOperation {
  explicit TimerOperation(const std::shared_ptr<EventLoop::State>& state) : home(state), timer(state->main) {}
  ~TimerOperation() {
    if (const auto alive = home.lock()) alive->detach(this);
  }
  TimerOperation(const TimerOperation&) = delete;
  TimerOperation& operator=(const TimerOperation&) = delete;
  std::weak_ptr<EventLoop::State> home;
  std::atomic<bool> cancelled{false};
  std::optional<asio::steady_timer> timer;
  TaskQueue::Task task;
  std::chrono::nanoseconds interval{};  // zero: fires once
  TimerPrecision precision = TimerPrecision::exact;
  SteadyPoint due;
};

/// A descriptor's watch. The lock keeps the token's owner and the waiting loop from touching the Asio object
/// at once.
struct Watch {
  ~Watch() {
    if (descriptor) descriptor->release();  // The descriptor is the caller's.
    if (const auto alive = home.lock()) alive->detach(this);
  }
  std::weak_ptr<EventLoop::State> home;
  std::atomic<bool> cancelled{false};
  std::mutex lock;
  std::optional<asio::posix::stream_descriptor> descriptor;
  TaskQueue::Task ready;
};

/// A queue over one of the two loops. Asio's strand is not used because it must not outlive its loop, while a
/// queue may: services hold queues, and the order of a program's teardown is theirs.
class AsioQueue final : public TaskQueue, public std::enable_shared_from_this<AsioQueue> {
 public:
  AsioQueue(std::string label, std::weak_ptr<EventLoop::State> state, QueueHome home)
      : label_(std::move(label)), state_(std::move(state)), home_(home) {}
  ~AsioQueue() override {
    if (const auto state = state_.lock()) state->detach(this);
  }
  AsioQueue(const AsioQueue&) = delete;
  AsioQueue& operator=(const AsioQueue&) = delete;

  /// A task that nobody will run may own what owns this queue: with the loop they are dropped.
  void attach() {
    if (const auto state = state_.lock()) {
      state->attach(this, [weak = weak_from_this()] {
        if (const auto self = weak.lock()) self->close();
      });
    }
  }

  [[nodiscard]] const std::string& label() const override { return label_; }
  [[nodiscard]] bool isCurrent() const override { return runningQueue == this; }

  void post(Task task) override {
    const auto state = state_.lock();
    if (!state) return;
    {
      const std::lock_guard guard(lock_);
      if (isClosed_) return;
      pending_.push_back(std::move(task));
      if (std::exchange(draining_, true)) return;
    }
    scheduleDrain(*state);
  }

  Token after(std::chrono::nanoseconds delay, Task task) override {
    return startTimer(delay, 0ns, TimerPrecision::exact, std::move(task));
  }

  Token every(std::chrono::nanoseconds first, std::chrono::nanoseconds interval, TimerPrecision precision,
              std::move_only_function<void()> task) override {
    return startTimer(first, std::max<std::chrono::nanoseconds>(interval, 1ms), precision, std::move(task));
  }

  Token watchReadable(int descriptor, std::move_only_function<void()> ready) override {
    return startWatch(descriptor, asio::posix::stream_descriptor::wait_read, std::move(ready));
  }

  Token onceWritable(int descriptor, Task ready) override {
    return startWatch(descriptor, asio::posix::stream_descriptor::wait_write, std::move(ready));
  }

 private:
  asio::io_context& homeOf(EventLoop::State& state) const {
    return home_ == QueueHome::background ? state.background : state.main;
  }

  void close() {
    std::deque<Task> dropped;  // Outside the lock: their ends may post.
    const std::lock_guard guard(lock_);
    isClosed_ = true;
    dropped.swap(pending_);
  }

  void scheduleDrain(EventLoop::State& state) {
    asio::post(homeOf(state), [self = shared_from_this()] { self->drain(); });
  }

  /// Runs what is pending, in order, and comes back later for what those tasks post: other queues get their
  /// turn.
  void drain() {
    std::deque<Task> batch;
    {
      const std::lock_guard guard(lock_);
      batch.swap(pending_);
    }
    {
      const RunningMark mark(this);
      for (auto& task : batch) task();
    }
    batch.clear();
    {
      const std::lock_guard guard(lock_);
      if (pending_.empty()) {
        draining_ = false;
        return;
      }
    }
    if (const auto state = state_.lock()) scheduleDrain(*state);
  }

  /// Called on a loop's thread: inline on the main loop, which is serial by itself, through the queue
  /// elsewhere.
  template <typename Body>
  void runFromLoop(Body body) {
    if (home_ == QueueHome::background) return post(std::move(body));
    const RunningMark mark(this);
    body();
  }

  Token startTimer(std::chrono::nanoseconds first, std::chrono::nanoseconds interval,
                   TimerPrecision precision, Task task) {
    const auto state = state_.lock();
    if (!state) return Token{};
    auto operation = std::make_shared<TimerOperation>(state);
    state->attach(operation.get(), [weak = std::weak_ptr(operation)] {
      if (const auto timer = weak.lock()) timer->timer.reset();
    });
    operation->task = std::move(task);
    operation->interval = interval;
    operation->precision = precision;
    operation->due = asio::steady_timer::clock_type::now() + std::max(first, 0ns);
    asio::post(state->main, [self = shared_from_this(), operation] { self->arm(operation); });
    return Token{[weak = state_, operation] {
      operation->cancelled = true;
      if (const auto alive = weak.lock())
        asio::post(alive->main, [operation] { operation->timer->cancel(); });
    }};
  }

  void arm(const std::shared_ptr<TimerOperation>& operation) {
    const auto state = state_.lock();
    if (!state || operation->cancelled || !operation->timer) return;
    operation->timer->expires_at(operation->precision == TimerPrecision::shared
                                     ? state->alignedToTick(operation->due)
                                     : operation->due);
    operation->timer->async_wait([self = shared_from_this(), operation](const asio::error_code& error) {
      if (error || operation->cancelled) return;
      if (operation->interval > 0ns) {
        const auto now = asio::steady_timer::clock_type::now();
        const auto missed = now > operation->due ? (now - operation->due) / operation->interval : 0;
        operation->due += operation->interval * (missed + 1);
        self->arm(operation);
      }
      self->runFromLoop([operation] {
        if (!operation->cancelled) operation->task();
      });
    });
  }

  Token startWatch(int descriptor, asio::posix::stream_descriptor::wait_type type, Task ready) {
    const auto state = state_.lock();
    if (!state) return Token{};
    auto watch = std::make_shared<Watch>();
    watch->ready = std::move(ready);
    try {
      watch->descriptor.emplace(homeOf(*state), descriptor);
    } catch (const std::system_error&) {
      return Token{};  // Not a descriptor that can be waited for; such a watch never fires.
    }
    watch->home = state;
    state->attach(watch.get(), [weak = std::weak_ptr(watch)] {
      const auto watched = weak.lock();
      if (!watched) return;
      const std::lock_guard guard(watched->lock);
      if (watched->descriptor) watched->descriptor->release();
      watched->descriptor.reset();
    });
    asio::post(homeOf(*state), [self = shared_from_this(), watch, type] { self->wait(watch, type); });
    return Token{[weak = state_, watch] {
      watch->cancelled = true;
      const std::lock_guard guard(watch->lock);
      if (!watch->descriptor) return;
      // The descriptor leaves the loop before this returns: its owner may close it and see its number used
      // again.
      watch->descriptor->release();
      if (const auto alive = weak.lock()) watch->descriptor.reset();
    }};
  }

  void wait(const std::shared_ptr<Watch>& watch, asio::posix::stream_descriptor::wait_type type) {
    const std::lock_guard guard(watch->lock);
    if (watch->cancelled || !watch->descriptor) return;
    watch->descriptor->async_wait(type,
                                  [self = shared_from_this(), watch, type](const asio::error_code& error) {
                                    if (error || watch->cancelled) return;
                                    self->runFromLoop([self, watch, type] {
                                      if (watch->cancelled) return;
                                      watch->ready();
                                      if (type == asio::posix::stream_descriptor::wait_read)
                                        self->wait(watch, type);
                                    });
                                  });
  }

  const std::string label_;
  const std::weak_ptr<EventLoop::State> state_;
  const QueueHome home_;
  std::mutex lock_;
  std::deque<Task> pending_;
  bool draining_ = false;
  bool isClosed_ = false;
};

std::shared_ptr<AsioQueue> makeAsioQueue(std::string label, const std::shared_ptr<EventLoop::State>& state,
                                         QueueHome home) {
  auto queue = std::make_shared<AsioQueue>(std::move(label), state, home);
  queue->attach();
  return queue;
}

}  // namespace

EventLoop::EventLoop() : state_(std::make_shared<State>()) {
  state_->mainQueue = makeAsioQueue("main", state_, QueueHome::mainThread);
}

EventLoop::~EventLoop() {
  state_->mainWork.reset();
  state_->backgroundWork.reset();
  state_->background.stop();
  for (auto& thread : state_->threads) thread.join();
  state_->main.stop();
  state_->letAllGo();
  state_->mainQueue.reset();
}

std::shared_ptr<TaskQueue> EventLoop::mainQueue() { return state_->mainQueue; }

std::shared_ptr<TaskQueue> EventLoop::makeQueue(std::string label, QueueHome home) {
  if (home == QueueHome::background) state_->startThreads();
  return makeAsioQueue(std::move(label), state_, home);
}

void EventLoop::run() {
  state_->main.run();
  state_->main.restart();
}

void EventLoop::stop() { state_->main.stop(); }

Token EventLoop::onSignal(int signalNumber, std::move_only_function<void()> handler) {
  struct Delivery {
    Delivery(asio::io_context& context, int number) : signals(context, number) {}
    std::atomic<bool> cancelled{false};
    asio::signal_set signals;
    std::move_only_function<void()> handler;
    void wait(const std::shared_ptr<Delivery>& self) {
      signals.async_wait([self](const asio::error_code& error, int) {
        if (error || self->cancelled) return;
        self->handler();
        self->wait(self);
      });
    }
  };
  auto delivery = std::make_shared<Delivery>(state_->main, signalNumber);
  delivery->handler = std::move(handler);
  delivery->wait(delivery);
  return Token{[state = std::weak_ptr(state_), delivery] {
    delivery->cancelled = true;
    if (const auto alive = state.lock()) asio::post(alive->main, [delivery] { delivery->signals.cancel(); });
  }};
}

}  // namespace vimbrel
