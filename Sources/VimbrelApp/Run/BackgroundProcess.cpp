// SPDX-License-Identifier: Apache-2.0
#include "Run/BackgroundProcess.h"

#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "AgentMonitoring/Hooks/HookEventReceiver.h"
#include "AgentMonitoring/Hooks/HookSocketPath.h"
#include "Control/AgentMethods.h"
#include "Control/DeepHoldMethods.h"
#include "Control/DiagnosticsMethods.h"
#include "Control/DoctorMethods.h"
#include "Control/HistoryMethods.h"
#include "Control/ProtectionMethods.h"
#include "Control/SettingsMethods.h"
#include "Control/StatusMethods.h"
#include "Control/UsageMethods.h"
#include "InstalledPrograms.h"
#include "Run/HostPlatform.h"
#include "Run/SpokenNotifications.h"
#include "Run/UsageWiring.h"
#include "Say.h"
#include "Support/Directories.h"

namespace vimbrel {

using namespace std::chrono_literals;

namespace {

/// A simulated machine's lid is covered in memory too.
ApplicationOptions::Helper helperFor(const RunOptions& options) {
  return options.worldFile.empty() ? ApplicationOptions::Helper::machine
                                   : ApplicationOptions::Helper::simulated;
}

/// The helper gives a lease up by itself when it runs out, so a slow one need not be waited for.
constexpr auto helperPatience = 500ms;

/// What a hook was told is taken must be in the store. The service manager kills after ten seconds.
constexpr auto usagePatience = 5s;

}  // namespace

BackgroundProcess::BackgroundProcess(const RunOptions& options, std::string version)
    : options_(options),
      simulated_(loop_.mainQueue()),
      platform_(choosePlatform()),
      agentProcesses_(platform_.processAncestry
                          ? std::make_shared<AgentProcesses>(platform_.processAncestry, clock_)
                          : nullptr),
      lastHookEvents_(std::make_shared<LastHookEvents>(
          clock_, directories::applicationSupport() + "/Vimbrel/last_events.json")),
      usage_(makeUsageServices(loop_, clock_)),
      application_(platform_, loop_, clock_, ApplicationDirectories::ofUser(),
                   {.hookReceiver = makeHookReceiver(),
                    .helper = helperFor(options),
                    .agentProcesses = agentProcesses_,
                    .usage = usage_.coordinator,
                    .lastHookEvents = lastHookEvents_}),
      controlled_{.coordinator = application_.coordinator(),
                  .platform = application_.platform(),
                  .clock = clock_,
                  .version = std::move(version),
                  .deepHold = &application_.deepHold(),
                  .commandHolds = &application_.commandHolds(),
                  .presentation = &application_.presentation(),
                  .usage = application_.usage().get(),
                  .history = &application_.history(),
                  .lastHookEvents = lastHookEvents_.get(),
                  .shortcut = &application_.shortcut()},
      server_(loop_.mainQueue(), clock_) {
  card_ = usage_.card;
  tokens_.push_back(addStatusMethods(server_, controlled_));
  tokens_.push_back(addDeepHoldMethods(server_, controlled_));
  addSettingsMethods(server_, controlled_);
  addProtectionMethods(server_, controlled_);
  addDoctorMethods(server_, controlled_);
  addHistoryMethods(server_, controlled_);
  addDiagnosticsMethods(server_, application_, loop_);
  agentMethods_ =
      addAgentMethods(server_, controlled_, loop_.mainQueue(), installedRelay(options.program).value_or(""));
  addUsageMethods(server_, usage_, clock_, loop_.mainQueue());
}

BackgroundProcess::~BackgroundProcess() { platform_.assertions->onMechanismsChanged = nullptr; }

PlatformServices BackgroundProcess::choosePlatform() {
  PlatformServices platform = simulated_.services();
  if (!options_.worldFile.empty()) {
    worldFile_.emplace(options_.worldFile, simulated_);
    worldFile_->watch(*loop_.mainQueue());
  } else {
    platform = makeHostPlatform(loop_, platform);
  }
  if (platform.notificationCenter) {
    platform.notificationCenter = std::make_shared<SpokenNotifications>(platform.notificationCenter);
  }
  return platform;
}

std::shared_ptr<HookEventReceiving> BackgroundProcess::makeHookReceiver() {
  HookSenderObserver observer;
  if (agentProcesses_) {
    observer = [processes = agentProcesses_](const HookEvent& event, std::int32_t sender) {
      processes->heard(event, sender);
    };
  }
  return std::make_shared<HookEventReceiver>(defaultHookSocketPath(), loop_, clock_, std::move(observer));
}

std::expected<void, std::string> BackgroundProcess::start(const std::string& controlSocket) {
  // Before any hook is answered: what was answered is recorded, also when the end comes at once.
  followSignals();
  platform_.assertions->onMechanismsChanged = [this] {
    application_.coordinator().scheduleEvaluation();
    server_.stateDidChange();
    showChange();
  };
  usage_.budgetWatch->start([this](const MoneyBudgetNotice& notice) {
    logger_.info("%s: %s", notice.title().c_str(), notice.message().c_str());
    if (!application_.settings().lowBudgetNotificationsEnabled()) return;
    application_.notifications().notifyLowBudget(
        "money." + std::string(rawValue(notice.standing.budget.scope.period)), notice.title(),
        notice.message(), notice.percent >= 100);
  });
  application_.start();
  if (const auto started = server_.start(controlSocket); !started) {
    application_.stop();
    return std::unexpected(say("cannot serve %1: %2", {controlSocket, retell(started.error().text())}));
  }
  if (platform_.assertions->isSimulated()) {
    logger_.info("Simulated: nothing keeps this machine awake");
    const auto remark =
        options_.worldFile.empty()
            ? say("nothing here can keep this machine awake, so holding is SIMULATED; why: vimbrel doctor")
            : say("SIMULATED machine; nothing keeps this one awake");
    std::fprintf(stderr, "vimbrel: %s\n", remark.c_str());
  }
  if (const auto problem = simulated_.problem()) {
    std::fprintf(stderr, "vimbrel: %s\n", retell(*problem).c_str());
  }
  startOutput();
  serviceManager_.ready(*loop_.mainQueue());
  return {};
}

void BackgroundProcess::followSignals() {
  for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGQUIT}) {
    tokens_.push_back(loop_.onSignal(signal, [this, signal] {
      logger_.info("Stopping on signal %d", signal);
      loop_.stop();
    }));
  }
}

void BackgroundProcess::startOutput() {
  tokens_.push_back(application_.coordinator().stateChanged().subscribe([this] { showChange(); }));
  if (!options_.linesOnly && FullScreen::isPossible()) {
    screen_ = std::make_unique<LiveScreen>(say("q stop Vimbrel"));
    keys_ = loop_.mainQueue()->watchReadable(STDIN_FILENO, [this] { takeKeys(); });
    tokens_.push_back(loop_.onSignal(SIGWINCH, [this] { draw(); }));
    tokens_.push_back(loop_.onSignal(SIGTSTP, [this] {
      screen_->suspend();
      draw();
    }));
    // For the ages that the view shows.
    tokens_.push_back(loop_.mainQueue()->every(1s, 1s, TimerPrecision::shared, [this] { draw(); }));
  }
  showChange();
}

void BackgroundProcess::showChange() {
  if (!screen_) {
    const auto summary = summaryDocument(controlled_, ChangeLines::maximumAgentsNamed);
    if (const auto line = lines_.next(summary, clock_.now())) {
      std::puts(line->c_str());
      std::fflush(stdout);
    }
    return;
  }
  // Every session has a line, and a flood of events changes them thousands of times a second.
  if (drawing_) return;
  const auto due = lastDrawn_ + drawInterval;
  const auto delay = std::max<std::chrono::nanoseconds>(due - clock_.monotonic(), 0ns);
  drawing_ = loop_.mainQueue()->after(delay, [this] {
    drawing_.reset();
    draw();
  });
}

void BackgroundProcess::draw() {
  lastDrawn_ = clock_.monotonic();
  screen_->setState(statusDocument(controlled_));
  screen_->draw(clock_.now());
}

void BackgroundProcess::takeKeys() {
  std::string keys;
  if (!FullScreen::readKeys(keys)) {
    // The terminal is gone, and with it the user who started this.
    keys_.reset();
    loop_.stop();
  }
  auto& coordinator = application_.coordinator();
  for (const char key : keys) {
    SettingsStore::WriteResult written;
    if (key == 'q' || key == 'Q') loop_.stop();
    if (key == 'p' || key == 'P')
      written = coordinator.settings().pause(Seconds(LiveScreen::pauseKeySeconds));
    if (key == 'r' || key == 'R') written = coordinator.settings().resume();
    screen_->setNotice(written ? "" : retell(written.error().text));
  }
  coordinator.evaluate();
  draw();
}

void BackgroundProcess::run() {
  loop_.run();
  serviceManager_.stopping();
  // Intake first: nothing that comes in meanwhile may take what is given back.
  server_.stop();
  application_.stop();
  drawing_.reset();
  screen_ = nullptr;
  usage_.coordinator->drain(usagePatience);
  application_.drain(helperPatience);
}

}  // namespace vimbrel
