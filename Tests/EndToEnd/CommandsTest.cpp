// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "EndToEnd/ProcessHarness.h"

namespace vimbrel {
namespace {

using nlohmann::json;

struct CommandCase {
  std::vector<std::string> arguments;
  int status;
  std::string says;  ///< on standard error when the status is not 0, else on standard output
};

void expectEach(const Sandbox& sandbox, const std::vector<CommandCase>& cases) {
  for (const auto& each : cases) {
    std::string line;
    for (const auto& argument : each.arguments) line += argument + " ";
    const auto finished = sandbox.vimbrel(each.arguments);
    EXPECT_EQ(finished.status, each.status) << line;
    const auto& text = each.status == 0 ? finished.output : finished.errors;
    EXPECT_TRUE(text.contains(each.says)) << line << "says: " << text;
    if (each.status != 0) {
      EXPECT_EQ(finished.output, "") << line;
    }
  }
}

TEST(Commands, sayHowToStartTheApplicationWhenItIsNotRunning) {
  const Sandbox sandbox;
  std::vector<CommandCase> cases;
  for (const auto& arguments :
       std::vector<std::vector<std::string>>{{"status"},
                                             {"status", "--json"},
                                             {"watch"},
                                             {"why"},
                                             {"sessions"},
                                             {"settings", "list"},
                                             {"settings", "get", "masterEnabled"},
                                             {"settings", "set", "masterEnabled", "on"},
                                             {"settings", "reset"},
                                             {"pause", "45m"},
                                             {"resume"},
                                             {"hold", "on"},
                                             {"hold", "--lid", "1m", "--", "true"},
                                             {"history"},
                                             {"diagnostics"},
                                             {"doctor"}}) {
    cases.push_back({arguments, 3, "Start it with: vimbrel run"});
  }
  expectEach(sandbox, cases);
}

TEST(Commands, explainAWrongCommandLine) {
  const Sandbox sandbox;
  expectEach(sandbox,
             {{{"--help"}, 0, "Subcommands:"},
              {{"run", "--help"}, 0, "--simulate"},
              {{"--version"}, 0, "vimbrel "},
              {{}, 2, "vimbrel --help"},
              {{"staus"}, 2, "did you mean status?"},
              {{"xyzzy"}, 2, "there is no command xyzzy\n"},
              {{"status", "--jsn"}, 2, "did you mean --json?"},
              {{"status", "more"}, 2, "vimbrel status --help"},
              {{"settings"}, 2, "vimbrel settings --help"},
              {{"settings", "lst"}, 2, "did you mean list?"},
              {{"settings", "set", "masterEnabled"}, 2, "value is required"},
              {{"hold"}, 2, "vimbrel hold --help"},
              {{"hold", "maybe"}, 2, "hold takes on, off, or a time and a command"},
              {{"status", "--format", "xyzzy"}, 2, "plain, waybar, i3blocks or polybar"},
              {{"history", "--since", "someday"}, 2, "a day such as"},
              {{"history", "--since", "2026-02-02", "--until", "2026-02-01T00:00:00Z"}, 2, "before --since"},
              {{"history", "--since", "9000-01-01"}, 2, "--since is in the future"},
              {{"simulate"}, 2, "vimbrel simulate --help"},
              {{"simulate", "/nonexistent.json"}, 1, "/nonexistent.json"},
              {{"pause"}, 2, "vimbrel pause --help"},
              {{"pause", "soon"}, 2, "soon"},
              {{"pause", "until", "25:00"}, 2, "write it like 14:00"},
              {{"run", "--simulate", "/nonexistent.json"}, 1, "/nonexistent.json"}});
}

TEST(Commands, simulateLeavesNoDirectoryBehind) {
  Sandbox sandbox;
  const auto temporary = sandbox.file("temporary");
  std::filesystem::create_directory(temporary);
  sandbox.environment["TMPDIR"] = temporary;
  // More than a pipe holds: the program cannot end before it is read.
  const json story{{"at", "1m"}, {"say", std::string(300'000, 'x')}};
  sandbox.write("wordy.json", json{{"length", "1h"}, {"steps", {story}}}.dump());
  const auto names = [&] {
    std::vector<std::string> found;
    for (const auto& entry : std::filesystem::directory_iterator(temporary)) {
      found.push_back(entry.path().filename());
    }
    return found;
  };
  for (const int number : {0, SIGINT, SIGTERM, SIGHUP}) {
    // Whoever runs the tests may ignore it, which is inherited.
    if (number != 0) std::signal(number, SIG_DFL);
    RunningProcess process({vimbrelProgram(), "simulate", sandbox.file("wordy.json")}, sandbox.environment);
    ASSERT_TRUE(eventually([&] { return !names().empty(); })) << number << process.errors();
    EXPECT_TRUE(names()[0].starts_with("vimbrel-simulate-")) << names()[0];
    process.signal(number);
    EXPECT_EQ(process.wait(), number == 0 ? 0 : 128 + number) << process.errors();
    EXPECT_EQ(names(), std::vector<std::string>{}) << number;
  }
  std::signal(SIGPIPE, SIG_DFL);
  RunningProcess left({"/bin/sh", "-c", "{ \"$0\" simulate \"$1\"; echo $? >&2; } | head -c 1",
                       vimbrelProgram(), sandbox.file("wordy.json")},
                      sandbox.environment);
  EXPECT_EQ(left.wait(), 0);
  EXPECT_EQ(left.output().size(), 1U);
  EXPECT_EQ(left.errors(), std::to_string(128 + SIGPIPE) + "\n");
  EXPECT_EQ(names(), std::vector<std::string>{});

  sandbox.environment["TMPDIR"] = sandbox.file("missing");
  const auto refused = sandbox.vimbrel({"simulate", sandbox.file("wordy.json")});
  EXPECT_EQ(refused.status, 1);
  EXPECT_TRUE(refused.errors.contains("a directory for the run cannot be made in " + sandbox.file("missing")))
      << refused.errors;
}

TEST(Commands, steerTheRunningApplication) {
  const Sandbox sandbox;
  const auto application = sandbox.startSimulated();
  expectEach(sandbox,
             {{{"status"}, 0, "SIMULATED"},
              {{"hold", "on"}, 0, "Manual hold requested"},
              {{"status"}, 0, "system sleep of a simulated machine"},
              {{"pause", "45m"}, 0, "Protection paused, until "},
              {{"why"}, 0, "=> Pause"},
              {{"why"}, 0, "would say: Active (0 working agents) — Manual hold requested"},
              {{"resume"}, 0, "Manual hold requested"},
              // Today or, with the date before it, tomorrow.
              {{"pause", "until", "14:00"}, 0, "14:00"},
              {{"hold", "off"}, 0, "Protection paused"},
              {{"settings", "reset"}, 0, "releaseDelaySeconds"},
              {{"status"}, 0, "Sleep enabled"},
              {{"sessions"}, 0, "No agents"},
              {{"settings", "set", "releaseDelaySeconds", "2m"}, 0, "releaseDelaySeconds = 120 seconds"},
              {{"settings", "get", "releaseDelaySeconds"}, 0, "120\n"},
              {{"settings", "reset", "releaseDelaySeconds"}, 0, "releaseDelaySeconds = 30 seconds"},
              {{"settings", "get", "batteryFlor"}, 2, "there is no setting \"batteryFlor\""},
              {{"settings", "set", "batteryFloorPercnt", "20"}, 2, "did you mean \"batteryFloorPercent\"?"},
              {{"settings", "set", "batteryFloorPercent", "99"}, 2, "from 5 to 50"},
              {{"settings", "set", "masterEnabled", "perhaps"}, 2, "perhaps"},
              {{"pause", "0s"}, 2, "more than 0"},
              {{"settings", "set", "waitingGraceSeconds", "10m"}, 0, "waitingGraceSeconds = 600 seconds"},
              {{"settings", "set", "waitingGraceSeconds", "none"}, 0, "waitingGraceSeconds = none\n"},
              {{"settings", "set", "maximumHoldSeconds", "5"}, 2, "from 60 to 604800, or none"},
              {{"status", "--format", "plain"}, 0, "idle\n"},
              {{"history"}, 0, "Protected for"},
              {{"history", "--since", "2001-01-01", "--until", "2001-01-02"}, 0, "Nothing was protected"},
              {{"history", "--until", "2001-01-02"}, 0, "Nothing was protected"},
              {{"diagnostics"}, 0, "\"appName\": \"Vimbrel\""}});
  const auto doctor = sandbox.vimbrel({"doctor"});
  EXPECT_EQ(doctor.status, 1) << "what is simulated keeps nothing awake";
  EXPECT_TRUE(doctor.output.contains("hook socket")) << doctor.output;
}

TEST(Commands, followTheStateForABarFromBeforeTheApplicationToAfterIt) {
  const Sandbox sandbox;
  RunningProcess bar({vimbrelProgram(), "status", "--format", "plain", "--follow"}, sandbox.environment);
  ASSERT_TRUE(eventually([&] { return bar.output() == "off\n"; }));
  {
    const auto application = sandbox.startSimulated();
    ASSERT_TRUE(eventually([&] { return bar.output() == "off\nidle\n"; }));
    EXPECT_EQ(sandbox.relay({"--agent", "codex", "--state", "working"}).status, 0);
    ASSERT_TRUE(eventually([&] { return bar.output() == "off\nidle\n1 working (simulated)\n"; }));
  }
  ASSERT_TRUE(eventually([&] { return bar.output() == "off\nidle\n1 working (simulated)\noff\n"; }))
      << bar.output();
  EXPECT_EQ(bar.errors(), "");
}

TEST(Commands, installAUserServiceInPlaceOfTheAutostartEntry) {
  const Sandbox sandbox;
  std::filesystem::create_directories(sandbox.file(".config/autostart"));
  sandbox.write(".config/autostart/com.vimbrel.app.desktop", "[Desktop Entry]\n");
  const auto installed = sandbox.vimbrel({"run", "--install-service"});
  EXPECT_EQ(installed.status, 0) << installed.errors;
  const auto unit = sandbox.file(".config/systemd/user/com.vimbrel.app.service");
  EXPECT_TRUE(installed.output.contains(unit)) << installed.output;
  EXPECT_TRUE(std::filesystem::exists(unit));
  EXPECT_FALSE(std::filesystem::exists(sandbox.file(".config/autostart/com.vimbrel.app.desktop")));
}

TEST(Commands, holdForOneCommandAndEndWithItsStatus) {
  const Sandbox sandbox;
  const auto application = sandbox.startSimulated();
  const auto held =
      sandbox.vimbrel({"hold", "--lid", "5m", "--", "sh", "-c", "\"$0\" status; exit 7", vimbrelProgram()});
  EXPECT_EQ(held.status, 7);
  EXPECT_TRUE(held.output.contains("Running sh")) << held.output;
  EXPECT_EQ(sandbox.vimbrel({"hold", "5m", "--", "sh", "-c", "kill -9 $$"}).status, 128 + 9);
  EXPECT_EQ(sandbox.vimbrel({"hold", "5m", "--", "/nonexistent/program"}).status, 127);
  EXPECT_EQ(sandbox.vimbrel({"hold", "--lid", "5m"}).status, 2);
  EXPECT_TRUE(eventually([&] { return sandbox.vimbrel({"status"}).output.contains("Sleep enabled"); }));
}

TEST(Commands, keepTheKeysOfTheirDocuments) {
  const Sandbox sandbox;
  const auto application = sandbox.startSimulated();
  EXPECT_EQ(sandbox.relay({"--agent", "codex", "--state", "working", "--session", "s"}).status, 0);
  const auto document = [&](const std::vector<std::string>& arguments) {
    return json::parse(sandbox.vimbrel(arguments).output, nullptr, false);
  };
  ASSERT_TRUE(eventually([&] { return !document({"status", "--json"})["sessions"].empty(); }));
  const struct {
    std::vector<std::string> arguments;
    std::string pointer;
    std::vector<std::string> keys;
  } cases[] = {
      {{"status", "--json"},
       "",
       {"agentFamilies",
        "assertions",
        "budgets",
        "closedLid",
        "commandHolds",
        "decision",
        "elapsedProtectionSeconds",
        "helperStatus",
        "isHolding",
        "lastEvents",
        "lidClosed",
        "lowBudgetAlerts",
        "pauseUntil",
        "power",
        "protectionStartedAt",
        "sessions",
        "settings",
        "statusDescription",
        "thermalState",
        "visualState",
        "warnings"}},
      {{"status", "--json"},
       "/assertions",
       {"display", "mechanismDetails", "mechanisms", "simulated", "system"}},
      {{"status", "--json"},
       "/sessions/0",
       {"agentType", "confidence", "hostAppName", "id", "integrationType", "lastEventAt",
        "lastEventDescription", "startedAt", "state"}},
      {{"why", "--json"}, "", {"closedLid", "decision", "now", "rules", "simulated", "statusDescription"}},
      {{"why", "--json"},
       "/rules/0",
       {"changesAt", "label", "outcome", "rule", "saw", "says", "saysDescription", "wouldChange"}},
      {{"sessions", "--json"}, "", {"sessions"}},
      {{"settings", "list", "--json"}, "", {"location", "settings", "warnings"}},
      {{"settings", "get", "batteryFloorPercent", "--json"},
       "",
       {"default", "help", "isDefault", "key", "maximum", "minimum", "text", "type", "unit", "value"}},
      {{"doctor", "--json"}, "", {"canHold", "findings", "simulated"}},
  };
  for (const auto& each : cases) {
    const auto whole = document(each.arguments);
    const auto& part = whole[json::json_pointer(each.pointer)];
    std::vector<std::string> keys;
    for (const auto& [key, value] : part.items()) {
      if (key != "pid" && key != "cwd") keys.push_back(key);  // Those of the relay's own process.
    }
    EXPECT_EQ(keys, each.keys) << each.arguments[0] << each.pointer;
  }
}

}  // namespace
}  // namespace vimbrel
