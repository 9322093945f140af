// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "Support/Log.h"

namespace vimbrel {

/// Catches what is logged while it lives, as "level category: text" lines. One at a time.
class CapturedLog {
 public:
  CapturedLog() {
    previous_ = logging::setSink([this](LogLevel level, auto, std::string_view category, auto text) {
      static constexpr const char* names[] = {"debug", "info", "error"};
      const std::lock_guard guard(lock_);
      lines_.push_back(std::string(names[static_cast<int>(level)]) + " " + std::string(category) + ": " +
                       std::string(text));
    });
  }
  ~CapturedLog() { logging::setSink(std::move(previous_)); }
  CapturedLog(const CapturedLog&) = delete;
  CapturedLog& operator=(const CapturedLog&) = delete;

  /// What was logged since the last call.
  std::vector<std::string> take() {
    const std::lock_guard guard(lock_);
    return std::exchange(lines_, {});
  }

 private:
  logging::Sink previous_;
  std::mutex lock_;
  std::vector<std::string> lines_;
};

}  // namespace vimbrel
