// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <expected>
#include <optional>
#include <string>

#include "Support/Fd.h"

namespace vimbrel {

/// Why the lock was not had: another process has it, or the file could not be used.
struct InstanceLockError {
  std::optional<long> holder;  ///< the other process's id
  std::string text;
};

/// Makes sure that one process at a time runs for a user. The kernel gives the lock back when the process
/// ends, however it ends; the file stays.
class InstanceLock {
 public:
  [[nodiscard]] static std::expected<InstanceLock, InstanceLockError> acquire(const std::string& path);

 private:
  explicit InstanceLock(Fd file) : file_(std::move(file)) {}
  Fd file_;
};

}  // namespace vimbrel
