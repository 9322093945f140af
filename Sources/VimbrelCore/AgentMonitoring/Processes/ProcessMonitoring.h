// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "Domain/AgentType.h"

namespace vimbrel {

/// One running process or application that was recognised as an agent.
struct ProcessMatch {
  AgentType agent = AgentType::custom;
  std::int32_t pid = 0;
  std::string name;
  bool isRunning = true;
  bool isWorking = false;  ///< judged to be doing work now
  std::string command;     ///< the whole command line, or a fixed label for applications
  bool operator==(const ProcessMatch&) const = default;
};

/// Looks for agents among the running processes at an interval, as the coordinator sees it.
class ProcessMonitoring {
 public:
  using UpdateCallback = std::function<void(std::vector<ProcessMatch>)>;
  virtual ~ProcessMonitoring() = default;
  /// Receives every scan's complete result, on the monitor's queue. Set it before `start`.
  virtual void setOnProcessesUpdated(UpdateCallback callback) = 0;
  virtual void start(double intervalSeconds) = 0;
  virtual void stop() = 0;
};

}  // namespace vimbrel
