// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <string>

#include "Support/TaskQueue.h"

namespace vimbrel {

/// A queue of virtual time whose watches of descriptors do fire: whenever `poll` is called, in the order in
/// which they were made. With both ends of every connection in one thread, what happens depends on nothing
/// but the calls made.
class DescriptorQueue final : public TaskQueue {
 public:
  explicit DescriptorQueue(std::shared_ptr<TaskQueue> inner);

  /// Posts what waits for a descriptor that is ready now, unless it is posted already. True when something
  /// was.
  bool poll();

  [[nodiscard]] const std::string& label() const override { return inner_->label(); }
  void post(Task task) override { inner_->post(std::move(task)); }
  Token after(std::chrono::nanoseconds delay, Task task) override {
    return inner_->after(delay, std::move(task));
  }
  Token every(std::chrono::nanoseconds first, std::chrono::nanoseconds interval, TimerPrecision precision,
              std::move_only_function<void()> task) override {
    return inner_->every(first, interval, precision, std::move(task));
  }
  Token watchReadable(int descriptor, std::move_only_function<void()> ready) override;
  Token onceWritable(int descriptor, Task ready) override;
  [[nodiscard]] bool isCurrent() const override { return inner_->isCurrent(); }

 private:
  struct Watch;
  struct Watches;
  Token add(Watch watch);

  const std::shared_ptr<TaskQueue> inner_;
  const std::shared_ptr<Watches> watches_;
};

}  // namespace vimbrel
