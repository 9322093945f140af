// SPDX-License-Identifier: Apache-2.0
#include "Support/VirtualTime.h"

#include <algorithm>
#include <map>
#include <utility>

namespace vimbrel {

using std::chrono::nanoseconds;

namespace {
thread_local const TaskQueue* runningQueue = nullptr;
}

struct VirtualTime::State {
  struct Entry {
    const TaskQueue* queue;
    std::shared_ptr<TaskQueue::Task> task;
  };
  Instant start;
  Seconds wallShift{0};
  nanoseconds elapsed{0};
  std::uint64_t nextSequence = 0;
  // Ordered by time, then by the order in which they were scheduled.
  std::map<std::pair<nanoseconds, std::uint64_t>, Entry> agenda;
  std::shared_ptr<TaskQueue> mainQueue;

  std::pair<nanoseconds, std::uint64_t> schedule(nanoseconds at, const TaskQueue* queue,
                                                 std::shared_ptr<TaskQueue::Task> task) {
    const auto key = std::pair{std::max(at, elapsed), nextSequence++};
    agenda.emplace(key, Entry{queue, std::move(task)});
    return key;
  }
};

namespace {

class VirtualQueue final : public TaskQueue {
 public:
  VirtualQueue(std::string label, std::weak_ptr<VirtualTime::State> state)
      : label_(std::move(label)), state_(std::move(state)) {}

  [[nodiscard]] const std::string& label() const override { return label_; }
  [[nodiscard]] bool isCurrent() const override { return runningQueue == this; }

  void post(Task task) override {
    if (const auto state = state_.lock()) {
      state->schedule(state->elapsed, this, std::make_shared<Task>(std::move(task)));
    }
  }

  Token after(nanoseconds delay, Task task) override {
    const auto state = state_.lock();
    if (!state) return Token{};
    const auto key = state->schedule(state->elapsed + std::max(delay, nanoseconds{0}), this,
                                     std::make_shared<Task>(std::move(task)));
    return Token{[weak = state_, key] {
      if (const auto alive = weak.lock()) alive->agenda.erase(key);
    }};
  }

  Token every(nanoseconds first, nanoseconds interval, TimerPrecision /*precision*/,
              std::move_only_function<void()> task) override {
    const auto state = state_.lock();
    if (!state) return Token{};
    auto repeating = std::make_shared<Repeating>();
    repeating->task = std::move(task);
    repeating->interval = std::max<nanoseconds>(interval, std::chrono::milliseconds{1});
    schedule(*state, repeating, state->elapsed + std::max(first, nanoseconds{0}));
    return Token{[weak = state_, repeating] {
      repeating->cancelled = true;
      if (const auto alive = weak.lock()) alive->agenda.erase(repeating->key);
    }};
  }

  Token watchReadable(int /*descriptor*/, std::move_only_function<void()> /*ready*/) override {
    return Token{};
  }
  Token onceWritable(int /*descriptor*/, Task /*ready*/) override { return Token{}; }

 private:
  struct Repeating {
    std::move_only_function<void()> task;
    nanoseconds interval{};
    std::pair<nanoseconds, std::uint64_t> key;
    bool cancelled = false;
  };

  void schedule(VirtualTime::State& state, const std::shared_ptr<Repeating>& repeating, nanoseconds at) {
    repeating->key = state.schedule(at, this, std::make_shared<Task>([this, weak = state_, repeating, at] {
                                      const auto alive = weak.lock();
                                      if (!alive || repeating->cancelled) return;
                                      schedule(*alive, repeating, at + repeating->interval);
                                      repeating->task();
                                    }));
  }

  const std::string label_;
  const std::weak_ptr<VirtualTime::State> state_;
};

}  // namespace

VirtualTime::VirtualTime(Instant start) : state_(std::make_shared<State>()) {
  state_->start = start;
  state_->mainQueue = std::make_shared<VirtualQueue>("main", state_);
}

VirtualTime::~VirtualTime() {
  // Tasks may own what schedules further tasks; let them go while the state still stands.
  while (!state_->agenda.empty()) {
    const auto agenda = std::exchange(state_->agenda, {});
  }
}

Instant VirtualTime::now() const {
  return state_->start + state_->wallShift + std::chrono::duration_cast<Seconds>(state_->elapsed);
}

nanoseconds VirtualTime::monotonic() const { return state_->elapsed; }

std::shared_ptr<TaskQueue> VirtualTime::mainQueue() { return state_->mainQueue; }

std::shared_ptr<TaskQueue> VirtualTime::makeQueue(std::string label, QueueHome /*home*/) {
  return std::make_shared<VirtualQueue>(std::move(label), state_);
}

bool VirtualTime::step(nanoseconds limit) {
  if (state_->agenda.empty()) return false;
  const auto first = state_->agenda.begin();
  if (first->first.first > limit) return false;
  state_->elapsed = std::max(state_->elapsed, first->first.first);
  const auto entry = std::move(first->second);
  state_->agenda.erase(first);
  const auto* previous = std::exchange(runningQueue, entry.queue);
  (*entry.task)();
  runningQueue = previous;
  return true;
}

void VirtualTime::runReady() {
  while (step(state_->elapsed)) {
  }
}

void VirtualTime::advance(nanoseconds duration) {
  const auto end = state_->elapsed + duration;
  while (step(end)) {
  }
  state_->elapsed = end;
}

void VirtualTime::jumpWallClock(Seconds by) { state_->wallShift += by; }

std::size_t VirtualTime::scheduledCount() const { return state_->agenda.size(); }

}  // namespace vimbrel
