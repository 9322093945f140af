// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "Support/TaskQueue.h"

namespace vimbrel {

/// A change signal without a value. Subscribers are called on the thread that sends, in the order in which
/// they subscribed, with no lock held; one that must run elsewhere posts to its own queue.
class ChangeSignal {
 public:
  /// The subscription lasts as long as the token.
  Token subscribe(std::function<void()> observer) {
    const std::lock_guard guard(state_->lock);
    const auto id = state_->next++;
    state_->observers.emplace(id, std::make_shared<std::function<void()>>(std::move(observer)));
    return Token{[weak = std::weak_ptr(state_), id] {
      if (const auto state = weak.lock()) {
        const std::lock_guard erasing(state->lock);
        state->observers.erase(id);
      }
    }};
  }

  void send() const {
    std::vector<std::shared_ptr<std::function<void()>>> observers;
    {
      const std::lock_guard guard(state_->lock);
      for (const auto& [id, observer] : state_->observers) observers.push_back(observer);
    }
    for (const auto& observer : observers) (*observer)();
  }

 private:
  struct State {
    std::mutex lock;
    std::uint64_t next = 0;
    std::map<std::uint64_t, std::shared_ptr<std::function<void()>>> observers;
  };
  std::shared_ptr<State> state_ = std::make_shared<State>();
};

/// A value whose every assignment is announced, also when the value is equal. Queue: one, its owner's.
template <typename T>
class Published {
 public:
  explicit Published(T initial) : value_(std::move(initial)) {}
  [[nodiscard]] const T& get() const { return value_; }
  void set(T value) {
    value_ = std::move(value);
    changed_.send();
  }
  Token subscribe(std::function<void()> observer) { return changed_.subscribe(std::move(observer)); }

 private:
  T value_;
  ChangeSignal changed_;
};

}  // namespace vimbrel
