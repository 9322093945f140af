// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/Processes/ProcessMonitor.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <optional>

#include "Support/VirtualTime.h"
#include "TemporaryDirectory.h"

namespace vimbrel {
namespace {

using std::chrono_literals::operator""s;

struct FakeProcesses final : ProcessList {
  ProcessEntries entries = std::make_shared<std::vector<ProcessEntry>>();
  ProcessEntries readAll() override { return entries; }
  ProcessEntries readRelevant(const std::function<bool(std::string_view)>&) override { return entries; }
};

struct FakeApplications final : RunningApplications {
  std::vector<RunningApplication> running;
  std::optional<std::vector<RunningApplication>> afterFirstLook;
  std::vector<RunningApplication> list() override {
    auto result = running;
    if (afterFirstLook) running = *afterFirstLook;
    return result;
  }
};

struct MonitorWorld {
  VirtualTime time{instantFromUnixSeconds(1'800'000'000)};
  TemporaryDirectory home;
  std::shared_ptr<FakeProcesses> processes = std::make_shared<FakeProcesses>();
  std::shared_ptr<FakeApplications> applications = std::make_shared<FakeApplications>();
  std::optional<ProcessMonitor> monitor{
      std::in_place,          time.makeQueue("com.vimbrel.processmonitor", QueueHome::background),
      std::cref<Clock>(time), processes,
      applications,           home.path()};
  std::vector<std::vector<ProcessMatch>> reports;

  MonitorWorld() {
    monitor->setOnProcessesUpdated([this](std::vector<ProcessMatch> matches) { reports.push_back(matches); });
  }
  void run(std::vector<ProcessEntry> entries) {
    processes->entries = std::make_shared<std::vector<ProcessEntry>>(std::move(entries));
  }
};

TEST(ProcessMonitor, listsAntigravityThenEditorsThenProcesses) {
  MonitorWorld world;
  world.applications->running = {{"Cursor", "x", 11},
                                 {std::nullopt, "com.cursor", 12},
                                 {"Editor", "com.Codeium.WINDSURF", 13},
                                 {"Google Antigravity", "", 14}};
  world.run({{812, "/usr/local/bin/codex exec fix tests"},
             {::getpid(), "claude --resume"},
             {900, "bash"},
             {901, "aider"}});
  const std::vector<ProcessMatch> expected{
      {AgentType::antigravity, 14, "Antigravity", true, false, "Antigravity IDE (Idle)"},
      {AgentType::cursor, 11, "Cursor", true, false, "Cursor IDE"},
      {AgentType::windsurf, 13, "Editor", true, false, "Windsurf IDE"},
      {AgentType::codex, 812, "Codex CLI", true, true, "/usr/local/bin/codex exec fix tests"},
      {AgentType::aider, 901, "Aider", true, true, "aider"}};
  EXPECT_EQ(world.monitor->scanProcesses(), expected);
  EXPECT_EQ(world.monitor->scanProcesses(), expected) << "an unchanged list gives the same matches";
  world.processes->entries = nullptr;
  EXPECT_EQ(world.monitor->scanProcesses().size(), 3U) << "without a process list the applications remain";
  world.run({{902, "aider"}});
  world.applications->afterFirstLook.emplace();
  const auto matches = world.monitor->scanProcesses();
  ASSERT_EQ(matches.size(), 2U) << "applications that have ended meanwhile";
  EXPECT_EQ(matches[0].pid, 41443) << "which stands for Antigravity";
}

TEST(ProcessMonitor, reportsEveryScanFromItsStartToItsStop) {
  MonitorWorld world;
  world.monitor->start(1);
  world.time.runReady();
  EXPECT_EQ(world.reports.size(), 1U) << "the first scan does not wait";
  world.time.advance(3s);
  EXPECT_EQ(world.reports.size(), 4U) << "unchanged results are reported too";
  world.monitor->start(10);
  world.time.advance(10s);
  EXPECT_EQ(world.reports.size(), 6U) << "the second timer replaces the first";
  world.monitor->stop();
  world.time.advance(60s);
  EXPECT_EQ(world.reports.size(), 6U);
  world.monitor->poll();
  EXPECT_EQ(world.reports.size(), 7U);
  world.monitor->start(1);
  world.monitor.reset();
  world.time.advance(5s);
  EXPECT_EQ(world.reports.size(), 7U) << "a monitor that is gone scans no more";
}

}  // namespace
}  // namespace vimbrel
