// SPDX-License-Identifier: Apache-2.0
// The live views on a real (pseudo-)terminal.
#include <gtest/gtest.h>

#include <csignal>

#include "EndToEnd/ProcessHarness.h"

namespace vimbrel {
namespace {

constexpr const char* entered = "\x1b[?1049h";
constexpr const char* left = "\x1b[?25h\x1b[?1049l";

std::unique_ptr<RunningProcess> onTerminal(const Sandbox& sandbox, std::vector<std::string> arguments,
                                           int columns = 80) {
  arguments.insert(arguments.begin(), vimbrelProgram());
  return std::make_unique<RunningProcess>(arguments, sandbox.environment, RunningProcess::Terminal::pseudo,
                                          columns);
}

bool shows(RunningProcess& process, const std::string& text) {
  return eventually([&] { return process.output().contains(text); });
}

TEST(Watch, drawsPausesResumesAndQuits) {
  const Sandbox sandbox;
  const auto application = sandbox.startSimulated();
  const auto view = onTerminal(sandbox, {"watch"});
  const auto modeBefore = view->terminalMode();
  ASSERT_TRUE(shows(*view, "Sleep enabled"));
  EXPECT_TRUE(view->output().contains(entered));
  EXPECT_NE(view->terminalMode(), modeBefore);
  EXPECT_EQ(sandbox.vimbrel({"hold", "on"}).status, 0);
  EXPECT_TRUE(shows(*view, "Manual hold requested"));  // The change was streamed, nothing was typed.
  view->type("p");
  EXPECT_TRUE(shows(*view, "Protection paused"));
  EXPECT_TRUE(sandbox.vimbrel({"status"}).output.contains("Protection paused"));
  view->type("r");
  EXPECT_TRUE(
      eventually([&] { return sandbox.vimbrel({"status"}).output.contains("Manual hold requested"); }));
  view->type("q");
  EXPECT_EQ(view->wait(), 0);
  EXPECT_TRUE(view->output().ends_with(left));
  EXPECT_EQ(view->terminalMode(), modeBefore);
}

TEST(Watch, givesTheTerminalBackOnEveryWayOut) {
  const Sandbox sandbox;
  auto application = sandbox.startSimulated();
  for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGSEGV, SIGABRT}) {
    const auto view = onTerminal(sandbox, {"watch"});
    const auto modeBefore = view->terminalMode();
    ASSERT_TRUE(shows(*view, "No agents")) << signal;
    view->signal(signal);
    EXPECT_EQ(view->wait(), 128 + signal);
    EXPECT_TRUE(view->output().ends_with(left)) << signal;
    EXPECT_EQ(view->terminalMode(), modeBefore) << signal;
  }
  const auto view = onTerminal(sandbox, {"watch"});
  ASSERT_TRUE(shows(*view, "No agents"));
  application.reset();
  EXPECT_EQ(view->wait(), 1);
  EXPECT_TRUE(view->output().contains(std::string(left) + "vimbrel: Vimbrel has ended")) << view->output();
}

TEST(Watch, comesBackAfterBeingStopped) {
  const Sandbox sandbox;
  const auto application = sandbox.startSimulated();
  const auto view = onTerminal(sandbox, {"watch"});
  const auto modeBefore = view->terminalMode();
  ASSERT_TRUE(shows(*view, "No agents"));
  view->signal(SIGTSTP);
  ASSERT_TRUE(eventually([&] { return view->isStopped(); }));
  EXPECT_EQ(view->terminalMode(), modeBefore);
  EXPECT_TRUE(view->output().ends_with(left));
  const auto before = view->output().size();
  view->signal(SIGCONT);
  EXPECT_TRUE(eventually([&] { return view->output().find("No agents", before) != std::string::npos; }));
  EXPECT_NE(view->terminalMode(), modeBefore);
}

TEST(Watch, fitsNarrowAndTinyTerminals) {
  const Sandbox sandbox;
  const auto application = sandbox.startSimulated();
  EXPECT_EQ(sandbox
                .relay({"--agent", "claude", "--state", "working", "--session", "s1", "--cwd",
                        "/home/somebody/a/rather/long/directory/name"})
                .status,
            0);
  const auto view = onTerminal(sandbox, {"watch"}, 40);
  ASSERT_TRUE(shows(*view, "Claude Code"));
  view->resize(11, 3);
  EXPECT_TRUE(shows(*view, "\x1b[H"));
  view->type("q");
  EXPECT_EQ(view->wait(), 0);
}

TEST(Run, showsTheSameViewOnATerminalAndStopsOnQ) {
  const Sandbox sandbox;
  const auto application = onTerminal(sandbox, {"run", "--simulate", sandbox.file("world.json")});
  const auto modeBefore = application->terminalMode();
  ASSERT_TRUE(shows(*application, "q stop Vimbrel"));
  EXPECT_EQ(sandbox.vimbrel({"hold", "on"}).status, 0);
  EXPECT_TRUE(shows(*application, "Manual hold requested"));
  application->type("p");
  EXPECT_TRUE(shows(*application, "Protection paused"));
  application->type("q");
  EXPECT_EQ(application->wait(), 0);
  EXPECT_TRUE(application->output().ends_with(left));
  EXPECT_EQ(application->terminalMode(), modeBefore);
  EXPECT_EQ(sandbox.vimbrel({"status"}).status, 3);
}

}  // namespace
}  // namespace vimbrel
