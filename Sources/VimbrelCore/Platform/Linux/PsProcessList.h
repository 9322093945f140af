// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Platform/ProcessList.h"

namespace vimbrel {

/// The process list from `/bin/ps -axo pid,command`: what `/proc` is compared with, and the way out where
/// `/proc` cannot be used directly. Remembers nothing but its last answer. Blocks for as long as `ps` takes.
class PsProcessList final : public ProcessList {
 public:
  /// Null when `ps` cannot be run, fails, or prints anything but UTF-8.
  [[nodiscard]] ProcessEntries readAll() override;
  [[nodiscard]] ProcessEntries readRelevant(
      const std::function<bool(std::string_view command)>& relevant) override;

 private:
  ProcessEntries last_;
};

}  // namespace vimbrel
