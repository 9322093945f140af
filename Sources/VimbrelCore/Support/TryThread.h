// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <system_error>
#include <thread>
#include <utility>

namespace vimbrel {

/// A thread that does the work, or none when the system gives none now: users and control groups are limited
/// in processes. Whoever can do without one then does. Any thread.
template <typename Work>
[[nodiscard]] std::optional<std::jthread> tryThread(Work&& work) {
  try {
    return std::jthread(std::forward<Work>(work));
  } catch (const std::system_error&) {
    return std::nullopt;
  }
}

}  // namespace vimbrel
