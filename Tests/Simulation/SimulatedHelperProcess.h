// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "DeepHold/HelperExchange.h"
#include "HelperService.h"
#include "Support/VirtualTime.h"
#include "TemporaryDirectory.h"

namespace vimbrel {

/// The privileged helper as a process that can be killed, refused and cut off: the real service over a sleep
/// setting that, as the kernel does with an inhibitor, goes with the process. Its state file survives.
class SimulatedHelperProcess {
 public:
  /// What is wrong with the helper on purpose, to see that a simulation notices.
  enum class Flaw { none, deafToTime };

  explicit SimulatedHelperProcess(VirtualTime& time, Flaw flaw = Flaw::none);
  ~SimulatedHelperProcess();

  void start();
  /// Ends it as a signal to terminate does.
  void stop();
  /// Ends it as SIGKILL does.
  void crash();
  /// Crashes it in the middle of the next request that changes the sleep setting: after the change, with the
  /// state file as it was then.
  void crashInNextChange() { crashesInChange_ = true; }
  [[nodiscard]] bool isAlive() const { return service_ != nullptr; }

  /// Requests are answered, lost on the way, or carried out without an answer.
  enum class Line { works, losesRequests, losesAnswers };
  void setLine(Line line) { line_ = line; }
  /// The system refuses to disable sleep.
  void setRefused(bool refused);

  /// The machine's own state: whether sleep is disabled now.
  [[nodiscard]] bool isSleepDisabled() const;
  [[nodiscard]] HelperExchange exchange();

 private:
  class Setting;
  std::optional<HelperResponse> answer(const HelperRequest& request);

  VirtualTime& time_;
  const Flaw flaw_;
  TemporaryDirectory directory_;
  const std::shared_ptr<Setting> setting_;
  std::unique_ptr<HelperService> service_;
  Line line_ = Line::works;
  bool crashesInChange_ = false;
  std::optional<std::string> stateAtCrash_;
};

}  // namespace vimbrel
