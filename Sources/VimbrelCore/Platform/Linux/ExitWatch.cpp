// SPDX-License-Identifier: Apache-2.0
#include "Platform/Linux/ExitWatch.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>

namespace vimbrel {

void ExitWatch::add(std::int32_t pid) {
  const auto known = std::ranges::find(watched_, pid, &Watched::pid);
  if (known != watched_.end()) {
    ++known->count;
    return;
  }
  // Close-on-exec by itself. glibc has the wrapper, but older kernels' headers clash with its own.
  Fd descriptor(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0U)));
  polled_.push_back({descriptor.get(), POLLIN, 0});
  watched_.push_back({pid, 1, std::move(descriptor)});
}

void ExitWatch::remove(std::int32_t pid) {
  const auto known = std::ranges::find(watched_, pid, &Watched::pid);
  if (known == watched_.end() || --known->count > 0) return;
  polled_.erase(polled_.begin() + (known - watched_.begin()));
  watched_.erase(known);
}

const std::vector<std::int32_t>& ExitWatch::ended() {
  ended_.clear();
  if (polled_.empty()) return ended_;
  ::poll(polled_.data(), polled_.size(), 0);
  for (const auto& entry : polled_) {
    if (entry.fd < 0 || entry.revents != 0) {
      ended_.push_back(watched_[static_cast<std::size_t>(&entry - polled_.data())].pid);
    }
  }
  return ended_;
}

}  // namespace vimbrel
