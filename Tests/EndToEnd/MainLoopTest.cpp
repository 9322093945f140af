// SPDX-License-Identifier: Apache-2.0
// The product's main loop with real processes: a hook's relay, the background process, the commands.
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "EndToEnd/ProcessHarness.h"

namespace vimbrel {
namespace {

using nlohmann::json;

json statusOf(const Sandbox& sandbox) {
  const auto finished = sandbox.vimbrel({"status", "--json"});
  EXPECT_EQ(finished.status, 0) << finished.errors;
  auto document = json::parse(finished.output, nullptr, false);
  return document.is_object() ? document : json::object();
}

bool isHeld(const Sandbox& sandbox) {
  const auto status = statusOf(sandbox);
  // What is decided and what is held never differ here: the simulated machine grants everything.
  EXPECT_EQ(status["isHolding"], status["assertions"]["system"]);
  return status["isHolding"] == true;
}

void report(const Sandbox& sandbox, const std::string& state) {
  const auto finished = sandbox.relay({"--agent", "claude", "--state", state, "--session", "s1"});
  EXPECT_EQ(finished.status, 0);
}

TEST(MainLoop, aHookKeepsTheMachineAwakeUntilTheReleaseDelayIsOver) {
  const Sandbox sandbox;
  const auto application = sandbox.startSimulated();
  EXPECT_FALSE(isHeld(sandbox));
  report(sandbox, "working");
  ASSERT_TRUE(eventually([&] { return isHeld(sandbox); }));
  const auto held = statusOf(sandbox);
  EXPECT_EQ(held["decision"]["hold"]["activeAgentCount"], 1);
  EXPECT_EQ(held["sessions"][0]["agentType"], "claude");
  EXPECT_EQ(held["sessions"][0]["state"], "working");
  EXPECT_EQ(held["assertions"]["mechanisms"], json::array({"simulated"}));

  report(sandbox, "idle");
  ASSERT_TRUE(eventually([&] {
    return statusOf(sandbox)["statusDescription"].get<std::string>().contains("Release debounce");
  }));
  EXPECT_EQ(sandbox.vimbrel({"settings", "set", "releaseDelaySeconds", "0"}).status, 0);
  EXPECT_TRUE(eventually([&] { return !isHeld(sandbox); }));

  application->signal(SIGTERM);
  EXPECT_EQ(application->wait(), 0);
  EXPECT_TRUE(application->output().contains("Active (1 working agent) — Claude Code working"));
  EXPECT_TRUE(application->output().contains("Sleep enabled — No active agent sessions"));
  EXPECT_FALSE(std::filesystem::exists(sandbox.runDirectory() + "/control.sock"));
}

TEST(MainLoop, theWorldFileIsFollowedAndABrokenOneChangesNothing) {
  const Sandbox sandbox;
  sandbox.write("world.json", R"({"processes":["  812 /usr/local/bin/codex exec fix tests"]})");
  const auto application = sandbox.startSimulated();
  ASSERT_TRUE(eventually([&] { return isHeld(sandbox); }));
  sandbox.write("world.json",
                R"({"processes":["  812 /usr/local/bin/codex exec fix tests"],"thermalState":"critical"})");
  ASSERT_TRUE(eventually([&] { return !isHeld(sandbox); }));
  EXPECT_EQ(statusOf(sandbox)["decision"]["blocked"]["block"], "Thermal critical safety cutoff");
  sandbox.write("world.json", R"({"thermalState":)");
  ASSERT_TRUE(eventually([&] { return sandbox.vimbrel({"doctor"}).output.contains("world.json"); }));
  EXPECT_EQ(statusOf(sandbox)["thermalState"], "critical");
  sandbox.write("world.json", R"({"processes":["  812 /usr/local/bin/codex exec fix tests"]})");
  EXPECT_TRUE(eventually([&] { return isHeld(sandbox); }));
}

TEST(MainLoop, aSecondInstanceIsRefusedAndTheFirstKeepsItsSockets) {
  const Sandbox sandbox;
  const auto application = sandbox.startSimulated();
  const auto second = sandbox.vimbrel({"run", "--simulate", sandbox.file("world.json")});
  EXPECT_EQ(second.status, 1);
  EXPECT_TRUE(second.errors.contains("already running (process " + std::to_string(application->pid()) + ")"))
      << second.errors;
  report(sandbox, "working");
  EXPECT_TRUE(eventually([&] { return isHeld(sandbox); }));
}

TEST(MainLoop, whatACrashLeavesBehindIsReplaced) {
  const Sandbox sandbox;
  {
    const auto application = sandbox.startSimulated();
    application->signal(SIGKILL);
    EXPECT_EQ(application->wait(), 128 + SIGKILL);
  }
  EXPECT_TRUE(std::filesystem::exists(sandbox.runDirectory() + "/control.sock"));
  EXPECT_EQ(sandbox.vimbrel({"status"}).status, 3);
  const auto application = sandbox.startSimulated();
  report(sandbox, "working");
  EXPECT_TRUE(eventually([&] { return isHeld(sandbox); }));
}

TEST(MainLoop, aHomeWhoseSocketPathsAreTooLongIsSaidPlainly) {
  Sandbox sandbox;
  sandbox.environment["XDG_DATA_HOME"] = sandbox.file(std::string(90, 'd'));
  const auto run = sandbox.vimbrel({"run", "--simulate", sandbox.file("world.json")});
  EXPECT_EQ(run.status, 1);
  EXPECT_TRUE(run.errors.contains("longer than 102 bytes")) << run.errors;
}

}  // namespace
}  // namespace vimbrel
