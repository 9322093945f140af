// SPDX-License-Identifier: Apache-2.0
// What hangs off the loop, wired as the running application wires it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "ApplicationWorld.h"
#include "Platform/Linux/LinuxLoginItem.h"
#include "Support/AtomicFile.h"
#include "System/BudgetNotices.h"

namespace vimbrel {
namespace {

using testing::HasSubstr;

using ApplicationServices = ApplicationWorld;

TEST_F(ApplicationServices, toggleTheMasterSwitchAtEachPressAndStopListeningAtTheEnd) {
  launch();
  keys->pressed();
  EXPECT_TRUE(settings().masterEnabled()) << "later, on the main queue";
  time.runReady();
  EXPECT_FALSE(settings().masterEnabled());
  EXPECT_TRUE(coordinator().currentDecision().get().isBlocked());
  keys->pressed();
  time.runReady();
  EXPECT_TRUE(settings().masterEnabled());
  application->stop();
  EXPECT_EQ(keys->watching, 0);
}

TEST_F(ApplicationServices, pauseForAnHourFromTheNotice) {
  launch();
  hook(AgentState::working);
  ASSERT_EQ(center->posted.size(), 1U);
  center->onAction("vimbrel.started", center->posted[0].actions.at(0).key);
  time.runReady();
  EXPECT_EQ(settings().pauseUntil(), time.now() + Seconds{3600});
  EXPECT_FALSE(isHolding());
}

TEST_F(ApplicationServices, keepTheLoginItemAndItsSettingTheSame) {
  item->state = LoginItemStatus::enabled;
  launch();
  EXPECT_TRUE(settings().launchAtLogin()) << "the truth lies with the item";
  ASSERT_TRUE(settings().setLaunchAtLogin(false));
  time.runReady();
  EXPECT_EQ(item->state, LoginItemStatus::notRegistered);
  std::ofstream(directory.file("com.vimbrel.app/settings.json")) << R"({"launchAtLogin":true})";
  application->reloadSettings();
  time.runReady();
  EXPECT_EQ(item->state, LoginItemStatus::enabled) << "an edit of the file counts as well";
  EXPECT_EQ(item->calls, 2) << "it is told only what it does not know";
  application.reset();
  item->state = LoginItemStatus::requiresApproval;
  launch();
  EXPECT_EQ(item->state, LoginItemStatus::requiresApproval)
      << "what the user switched off elsewhere stays off";
}

TEST_F(ApplicationServices, noticeAndChimeAsTheirSettingsSay) {
  launch();
  ASSERT_TRUE(settings().setReleaseDelaySeconds(0));
  // What is heard of the start of a hold, and how many notices are seen.
  const auto start = [&] {
    hook(AgentState::completed);
    sounds->played.clear();
    center->posted.clear();
    hook(AgentState::working);
    return sounds->played + " " + std::to_string(center->posted.size());
  };
  EXPECT_EQ(start(), "Hero 1");
  sounds->known = false;
  EXPECT_EQ(start(), "Herobeep 1");
  ASSERT_TRUE(settings().setSoundEnabled(false));
  EXPECT_EQ(start(), " 1");
  center->available = false;
  ASSERT_TRUE(settings().setSoundEnabled(true));
  EXPECT_EQ(start(), "Herobeep 0") << "without a service the chime still plays";
  ASSERT_TRUE(settings().setNotificationsEnabled(false));
  EXPECT_EQ(start(), " 0");
}

TEST_F(ApplicationServices, exportDiagnosticsThatReadBackTheSame) {
  launch();
  hook(AgentState::waiting);
  const auto text = application->exportDiagnosticsJSON();
  const auto report = DiagnosticsExporter::parse(text);
  ASSERT_TRUE(report) << report.error().text;
  EXPECT_EQ(DiagnosticsExporter::exportJSON(*report), text);
  EXPECT_EQ(report->sessions.size(), 1U);
  EXPECT_EQ(report->policyDecision, "Active (1 working agent) — Claude Code working");
  EXPECT_EQ(report->osVersion, "Test OS 1");
  EXPECT_EQ(report->systemAssertionsSummary, "nothing\n");
  EXPECT_THAT(text, HasSubstr("\n  \"timestamp\": \"2027-01-15T08:00:00Z\"\n}")) << "ISO 8601, sorted keys";
  auto withHelper = *report;
  withHelper.deepHelperStatus = DeepSleepStatus{true, true, "lease", time.now(), false, true};
  EXPECT_EQ(DiagnosticsExporter::parse(DiagnosticsExporter::exportJSON(withHelper)), withHelper);
  withHelper.osVersion = "\xff";
  EXPECT_EQ(DiagnosticsExporter::exportJSON(withHelper), "{}");
}

TEST(GlobalShortcut, watchesOnceAndSaysWhyItCannot) {
  const auto keys = std::make_shared<Keys>();
  GlobalShortcutController controller(keys);
  controller.start();
  controller.start();
  EXPECT_EQ(keys->watching, 1);
  controller.stop();
  keys->refusal = "another program holds the keys";
  controller.start();
  EXPECT_FALSE(controller.isMonitoring());
  EXPECT_EQ(controller.refusal(), keys->refusal);
}

TEST(BudgetNotices, comeOnceForEachSessionAndLevel) {
  VirtualTime time{instantFromUnixSeconds(0)};
  const auto settings = std::make_shared<SettingsStore>(std::make_shared<MemoryPreferences>(), time);
  const auto center = std::make_shared<Center>();
  const auto controller =
      std::make_shared<NotificationController>(settings, center, nullptr, time.mainQueue());
  BudgetNotices::BudgetReports reports;
  BudgetNotices notices(controller, settings, [&]() -> const auto& { return reports; });
  Seconds toldBefore{0};
  const auto heard = [&](std::optional<LowBudgetLevel> level, const std::string& session) {
    ProviderBudgetReport report;
    report.agentType = AgentType::codex;
    report.sessionId = session;
    report.lastUpdated = time.now();
    report.toldAt = time.now() - toldBefore;
    if (level) report.lowBudgetAlert = LowBudgetAlert{*level, LowBudgetMetricType::quota, 8, "8 % left"};
    reports = {{AgentType::codex, report}};
    center->posted.clear();
    for (int i = 0; i < 3; ++i) notices.didApply(WakeDecision::release("x"), WakeDecision::release("x"));
    time.runReady();
    std::string said;
    for (const auto& each : center->posted)
      said += each.identifier + "/" + each.title + "/" + each.body + ";";
    return said;
  };
  EXPECT_EQ(heard(std::nullopt, "a"), "");
  EXPECT_EQ(heard(LowBudgetLevel::warning, "a"), "vimbrel.budget.codex/Codex CLI budget: Low/8 % left;");
  EXPECT_EQ(heard(LowBudgetLevel::warning, "a"), "");
  EXPECT_EQ(heard(LowBudgetLevel::critical, "a"),
            "vimbrel.budget.codex/Codex CLI budget: Critically Low/8 % left;");
  EXPECT_EQ(heard(LowBudgetLevel::warning, "a"), "") << "back again is no news";
  EXPECT_NE(heard(LowBudgetLevel::warning, "b"), "");
  toldBefore = Seconds(7200);
  EXPECT_EQ(heard(LowBudgetLevel::warning, "found in an old log"), "");
  toldBefore = Seconds(60);
  EXPECT_NE(heard(LowBudgetLevel::warning, "found in an old log"), "") << "it is used again";
  ASSERT_TRUE(settings->setValue("lowBudgetNotificationsEnabled", false));
  EXPECT_EQ(heard(LowBudgetLevel::exhausted, "b"), "");
  ASSERT_TRUE(settings->setValue("lowBudgetNotificationsEnabled", true));
  EXPECT_EQ(heard(LowBudgetLevel::exhausted, "b"), "") << "not made up for";
}

TEST(LinuxLoginItem, isAnAutostartEntryOrAUserUnitAndNeverBoth) {
  const CapturedLog quiet;
  const TemporaryDirectory directory;
  const auto program = directory.file("my \"programs\"/vimbrel");
  std::filesystem::create_directories(directory.file("my \"programs\""));
  const auto install = [&] { ASSERT_TRUE(replaceFile(program, "#!/bin/sh\n", 0755)); };
  install();
  LinuxLoginItem item(directory.path(), program);
  const auto entry = directory.file("autostart/com.vimbrel.app.desktop");
  EXPECT_EQ(item.status(), LoginItemStatus::notRegistered);
  ASSERT_TRUE(item.registerItem());
  EXPECT_EQ(item.status(), LoginItemStatus::enabled);
  EXPECT_THAT(*readFile(entry),
              HasSubstr("Exec=\"" + directory.path() + "/my \\\\\"programs\\\\\"/vimbrel\" run"));

  std::ofstream(entry, std::ios::app) << "Hidden=true\n";
  EXPECT_EQ(item.status(), LoginItemStatus::requiresApproval) << "as a desktop's dialog does it";
  ASSERT_TRUE(item.registerItem());
  std::filesystem::remove(program);
  EXPECT_EQ(item.status(), LoginItemStatus::notFound);
  install();

  const auto unit = item.installService();
  ASSERT_TRUE(unit) << unit.error();
  EXPECT_FALSE(std::filesystem::exists(entry));
  EXPECT_TRUE(item.isServiceEnabled());
  const auto text = readFile(*unit, 65536).value_or("");
  EXPECT_THAT(text,
              HasSubstr("ExecStart=\"" + directory.path() + R"(/my \"programs\"/vimbrel" run --lines)"));
  EXPECT_THAT(text, HasSubstr("\nNoNewPrivileges=yes\n")) << "as hardened as the packaged one";
  ASSERT_TRUE(item.registerItem());
  EXPECT_FALSE(std::filesystem::exists(entry)) << "the unit is enough";
  ASSERT_TRUE(item.unregisterItem());
  EXPECT_EQ(item.status(), LoginItemStatus::notRegistered);
  EXPECT_FALSE(std::filesystem::exists(*unit));
  EXPECT_FALSE(LinuxLoginItem(program, program).registerItem()) << "a file stands where a directory should";
}

}  // namespace
}  // namespace vimbrel
