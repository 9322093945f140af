// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/Processes/ProcessMonitor.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <utility>

#include "AgentMonitoring/Processes/CommandClassifier.h"

namespace vimbrel {
namespace {

bool isNamed(const RunningApplication& application, std::string_view text) {
  return containsIgnoringCase(*application.localizedName, text) ||
         containsIgnoringCase(application.bundleIdentifier, text);
}

void appendAntigravity(const std::vector<RunningApplication>& running, const AntigravityActivity& activity,
                       std::vector<ProcessMatch>& matches) {
  if (!activity.isRunning) return;
  const auto application = std::ranges::find_if(running, isAntigravity);
  const auto pid = application == running.end() ? ProcessMonitor::unknownAntigravityPid : application->pid;
  matches.push_back({AgentType::antigravity, pid, "Antigravity", true, activity.isWorking,
                     std::string(activity.description)});
}

void appendEditors(const std::vector<RunningApplication>& running, std::vector<ProcessMatch>& matches) {
  for (const auto& application : running) {
    if (!application.localizedName) continue;
    const auto append = [&](AgentType agent, const char* label) {
      matches.push_back({agent, application.pid, *application.localizedName, true, false, label});
    };
    if (isNamed(application, "cursor")) {
      append(AgentType::cursor, "Cursor IDE");
    } else if (isNamed(application, "windsurf")) {
      append(AgentType::windsurf, "Windsurf IDE");
    }
  }
}

std::chrono::nanoseconds intervalFrom(double seconds) {
  // A day is longer than any sensible interval, and far from overflowing.
  const double sensible = std::isfinite(seconds) ? std::clamp(seconds, 0.0, 86400.0) : 1.0;
  return std::chrono::duration_cast<std::chrono::nanoseconds>(Seconds{sensible});
}

}  // namespace

struct ProcessMonitor::State {
  const Clock& clock;
  const std::shared_ptr<ProcessList> processes;
  const std::shared_ptr<RunningApplications> applications;
  const std::string homeDirectory;

  std::mutex scanLock;  // one scan at a time, `poll` included
  // The matches of the last process list: an unchanged list is not classified again.
  ProcessEntries entries;
  std::vector<ProcessMatch> entryMatches;

  std::mutex callbackLock;
  std::shared_ptr<UpdateCallback> callback;

  std::vector<ProcessMatch> scan() {
    const std::lock_guard guard(scanLock);
    // The processes come first: looking at them tells the applications what is new.
    classify(processes->readRelevant(
        [](std::string_view command) { return classifyCommand(command).has_value(); }));
    auto running = applications->list();
    const auto activity = vimbrel::checkAntigravityWorkingState(running, homeDirectory, clock.now());
    // Reading transcripts takes its time; the application may have come back under another pid, or be gone.
    if (activity.isRunning) running = applications->list();
    std::vector<ProcessMatch> matches;
    appendAntigravity(running, activity, matches);
    appendEditors(running, matches);
    if (matches.empty()) return entryMatches;
    matches.insert(matches.end(), entryMatches.begin(), entryMatches.end());
    return matches;
  }

  void classify(ProcessEntries latest) {
    if (latest && latest == entries) return;
    entries = std::move(latest);
    entryMatches.clear();
    if (!entries) return;
    const auto ownPid = ::getpid();
    for (const auto& entry : *entries) {
      const auto found = classifyCommand(entry.command);
      if (!found || entry.pid == ownPid) continue;
      entryMatches.push_back(
          {found->agent, entry.pid, std::string(found->name), true, found->isWorking, entry.command});
    }
  }

  void scanAndReport() {
    auto matches = scan();
    std::shared_ptr<UpdateCallback> report;
    {
      const std::lock_guard guard(callbackLock);
      report = callback;
    }
    if (report && *report) (*report)(std::move(matches));
  }
};

ProcessMonitor::ProcessMonitor(std::shared_ptr<TaskQueue> queue, const Clock& clock,
                               std::shared_ptr<ProcessList> processes,
                               std::shared_ptr<RunningApplications> applications, std::string homeDirectory)
    : queue_(std::move(queue)),
      state_(new State{.clock = clock,
                       .processes = std::move(processes),
                       .applications = std::move(applications),
                       .homeDirectory = std::move(homeDirectory),
                       .scanLock = {},
                       .entries = {},
                       .entryMatches = {},
                       .callbackLock = {},
                       .callback = {}}) {}

ProcessMonitor::~ProcessMonitor() { stop(); }

void ProcessMonitor::setOnProcessesUpdated(UpdateCallback callback) {
  const std::lock_guard guard(state_->callbackLock);
  state_->callback = std::make_shared<UpdateCallback>(std::move(callback));
}

void ProcessMonitor::start(double intervalSeconds) {
  const std::lock_guard guard(lock_);
  timer_.reset();
  timer_ = queue_->every(std::chrono::nanoseconds{0}, intervalFrom(intervalSeconds), TimerPrecision::shared,
                         [weak = std::weak_ptr(state_)] {
                           if (const auto state = weak.lock()) state->scanAndReport();
                         });
}

void ProcessMonitor::stop() {
  const std::lock_guard guard(lock_);
  timer_.reset();
}

void ProcessMonitor::poll() { state_->scanAndReport(); }

std::vector<ProcessMatch> ProcessMonitor::scanProcesses() { return state_->scan(); }

AntigravityActivity ProcessMonitor::checkAntigravityWorkingState() {
  const std::lock_guard guard(state_->scanLock);
  return vimbrel::checkAntigravityWorkingState(state_->applications->list(), state_->homeDirectory,
                                               state_->clock.now());
}

}  // namespace vimbrel
