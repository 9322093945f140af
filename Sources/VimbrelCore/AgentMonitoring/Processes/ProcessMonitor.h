// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "AgentMonitoring/Processes/AntigravityActivity.h"
#include "AgentMonitoring/Processes/ProcessMonitoring.h"
#include "Platform/ProcessList.h"
#include "Platform/RunningApplications.h"
#include "Support/Clock.h"
#include "Support/TaskQueue.h"

namespace vimbrel {

/// Recognises coding agents among the running applications and processes, and judges which of them work, for
/// agents that report nothing through hooks. Every scan gives a complete picture and reports it, changed or
/// not; what fails within a scan only makes the picture smaller.
///
/// `start` and `stop` from any thread; scans run on the monitor's queue, which may block for the process
/// list.
class ProcessMonitor final : public ProcessMonitoring {
 public:
  /// The pid of an Antigravity match whose application is not in the list of running ones.
  static constexpr std::int32_t unknownAntigravityPid = 41443;

  /// The queue's label is "com.vimbrel.processmonitor". `clock` must outlive the monitor and its scans.
  ProcessMonitor(std::shared_ptr<TaskQueue> queue, const Clock& clock, std::shared_ptr<ProcessList> processes,
                 std::shared_ptr<RunningApplications> applications, std::string homeDirectory);
  ~ProcessMonitor() override;

  void setOnProcessesUpdated(UpdateCallback callback) override;
  /// Scans at once and then every `intervalSeconds`, on the shared tick; replaces a running timer.
  void start(double intervalSeconds) override;
  void stop() override;

  /// One scan on the caller's thread, handed to the callback.
  void poll();
  /// One complete scan: Antigravity, then the applications, then the processes in the order of their list.
  [[nodiscard]] std::vector<ProcessMatch> scanProcesses();
  /// What Antigravity is doing now.
  [[nodiscard]] AntigravityActivity checkAntigravityWorkingState();

 private:
  struct State;  // what a scan needs; a timer that fires late finds it gone
  const std::shared_ptr<TaskQueue> queue_;
  const std::shared_ptr<State> state_;
  std::mutex lock_;
  Token timer_;
};

}  // namespace vimbrel
