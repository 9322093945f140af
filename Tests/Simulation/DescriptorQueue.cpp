// SPDX-License-Identifier: Apache-2.0
#include "Simulation/DescriptorQueue.h"

#include <poll.h>

#include <cstdint>
#include <map>
#include <vector>

namespace vimbrel {

struct DescriptorQueue::Watch {
  int descriptor = -1;
  short events = 0;
  std::move_only_function<void()> ready;
  bool isPosted = false;
};

struct DescriptorQueue::Watches {
  std::uint64_t lastNumber = 0;
  std::map<std::uint64_t, std::shared_ptr<Watch>> all;
};

DescriptorQueue::DescriptorQueue(std::shared_ptr<TaskQueue> inner)
    : inner_(std::move(inner)), watches_(std::make_shared<Watches>()) {}

bool DescriptorQueue::poll() {
  std::vector<pollfd> asked;
  std::vector<std::uint64_t> numbers;
  for (const auto& [number, watch] : watches_->all) {
    if (watch->isPosted) continue;
    asked.push_back({watch->descriptor, watch->events, 0});
    numbers.push_back(number);
  }
  if (asked.empty() || ::poll(asked.data(), asked.size(), 0) <= 0) return false;
  for (std::size_t i = 0; i < asked.size(); ++i) {
    if (asked[i].revents == 0) continue;
    const auto number = numbers[i];
    watches_->all.at(number)->isPosted = true;
    inner_->post([weak = std::weak_ptr(watches_), number] {
      const auto watches = weak.lock();
      if (!watches) return;
      const auto found = watches->all.find(number);
      if (found == watches->all.end()) return;
      const auto watch = found->second;  // Its token may be dropped while it runs.
      watch->isPosted = false;
      if (watch->events == POLLOUT) watches->all.erase(found);
      watch->ready();
    });
  }
  return true;
}

Token DescriptorQueue::watchReadable(int descriptor, std::move_only_function<void()> ready) {
  return add({descriptor, POLLIN, std::move(ready)});
}

Token DescriptorQueue::onceWritable(int descriptor, Task ready) {
  return add({descriptor, POLLOUT, std::move(ready)});
}

Token DescriptorQueue::add(Watch watch) {
  const auto number = ++watches_->lastNumber;
  watches_->all.emplace(number, std::make_shared<Watch>(std::move(watch)));
  return Token{[weak = std::weak_ptr(watches_), number] {
    if (const auto watches = weak.lock()) watches->all.erase(number);
  }};
}

}  // namespace vimbrel
