// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <expected>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "AgentMonitoring/UsageServices.h"
#include "Control/ControlServer.h"
#include "Control/ControlledApplication.h"
#include "Platform/Simulated/SimulatedMachine.h"
#include "Platform/Simulated/SimulatedWorldFile.h"
#include "Run/ChangeLines.h"
#include "Run/RunCommand.h"
#include "Run/ServiceManager.h"
#include "Support/Clock.h"
#include "Support/EventLoop.h"
#include "Support/Log.h"
#include "System/Application.h"
#include "Terminal/LiveScreen.h"

namespace vimbrel {

/// The wiring of `vimbrel run`: chooses the machine, builds the application and its control socket on it,
/// shows what happens on standard output, and takes all of it down in reverse.
class BackgroundProcess {
 public:
  BackgroundProcess(const RunOptions& options, std::string version);
  ~BackgroundProcess();
  BackgroundProcess(const BackgroundProcess&) = delete;
  BackgroundProcess& operator=(const BackgroundProcess&) = delete;

  /// Begins to watch agents and to answer at `controlSocket`. The error is a sentence.
  [[nodiscard]] std::expected<void, std::string> start(const std::string& controlSocket);
  /// Until a signal or the user ends it; everything is then released.
  void run();

 private:
  /// As often as followers of the control socket are told.
  static constexpr std::chrono::milliseconds drawInterval{100};

  [[nodiscard]] PlatformServices choosePlatform();
  [[nodiscard]] std::shared_ptr<HookEventReceiving> makeHookReceiver();
  void followSignals();
  void startOutput();
  void showChange();
  void takeKeys();
  void draw();

  const RunOptions options_;
  const Logger logger_{"coordinator"};
  const SystemClock clock_;
  /// Tasks of the loop's threads read the prices, and may do so until the loop is gone.
  std::shared_ptr<const ModelRateCard> card_;
  EventLoop loop_;
  SimulatedMachine simulated_;
  std::optional<SimulatedWorldFile> worldFile_;
  PlatformServices platform_;
  const std::shared_ptr<AgentProcesses> agentProcesses_;
  const std::shared_ptr<LastHookEvents> lastHookEvents_;
  const UsageServices usage_;
  Application application_;
  const ControlledApplication controlled_;
  ControlServer server_;
  std::shared_ptr<void> agentMethods_;
  ServiceManager serviceManager_;
  ChangeLines lines_;
  std::unique_ptr<LiveScreen> screen_;
  std::vector<Token> tokens_;
  Token keys_;
  Token drawing_;
  std::chrono::nanoseconds lastDrawn_{-drawInterval};
};

}  // namespace vimbrel
